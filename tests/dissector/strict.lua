-- Loaded before the dissector in tests: a global that nobody has defined, or a new one, is an error and not nil.
setmetatable(_G, {
    __index = function(_, name)
        error("no such global: " .. tostring(name), 2)
    end,
    __newindex = function(_, name)
        error("a new global: " .. tostring(name), 2)
    end,
})

-- Shows in Wireshark and tshark what two nodes with the reference host exchange; docs/wire-format.md describes it.
--
-- To use it once:       tshark -X lua_script:zolt.lua -r FILE
-- To have it always:    copy it into the folder that "tshark -G folders" calls Personal Lua Plugins, or Global
-- To filter:            zolt, zolt.kind == "call_return", zolt.sequence == 42, zolt.block, _ws.expert
-- Tested with Wireshark 4.0.
--
-- Connections and datagrams are recognised by their bytes; a capture that begins in the middle is taken up with the
-- next header. On the ports of the preference zolt.ports everything is taken for it, also what is broken or of another
-- version, and before other protocols that claim such a port.

-- Made from Reference_Host/packet_layout.hpp by tests/dissector/layout_test.py --write; do not edit.
local layout = {
    magic = 0x5A4F4C54,
    version = 1,
    header_size = 72,
    block_size = 1024,
    flag_broadcast = 0x0001,
    flag_multicast = 0x0002,
    flags_application = 0xFF00,
    fields = {
        {name = "magic", offset = 0, size = 4,
            meaning = "the letters ZOLT"},
        {name = "version", offset = 4, size = 2,
            meaning = "version of this layout: 1"},
        {name = "header_size", offset = 6, size = 2,
            meaning = "size of this header in bytes: 72"},
        {name = "kind", offset = 8, size = 1,
            meaning = "what the packet is, see the kinds"},
        {name = "detail", offset = 9, size = 1,
            meaning = "control: the event; error: the kind of the packet that came back; else 0"},
        {name = "flags", offset = 10, size = 2,
            meaning = "bit 0 broadcast, bit 1 multicast; bits 8 to 15 are the application's"},
        {name = "data_size", offset = 12, size = 4,
            meaning = "bytes of data that follow the header"},
        {name = "error", offset = 16, size = 4,
            meaning = "error code, 0 for none"},
        {name = "code", offset = 20, size = 4,
            meaning = "the application's own number"},
        {name = "source_ip", offset = 24, size = 4,
            meaning = "IPv4 address of the sender"},
        {name = "source_port", offset = 28, size = 2,
            meaning = "port of the sender"},
        {name = "source_id", offset = 30, size = 2,
            meaning = "node id of the sender"},
        {name = "destination_ip", offset = 32, size = 4,
            meaning = "IPv4 address of the receiver"},
        {name = "destination_port", offset = 36, size = 2,
            meaning = "port of the receiver"},
        {name = "destination_id", offset = 38, size = 2,
            meaning = "node id of the receiver"},
        {name = "sequence", offset = 40, size = 8,
            meaning = "the sender's running number"},
        {name = "creation_clock", offset = 48, size = 8,
            meaning = "microseconds of the sender's own clock at creation, 0 for not told"},
        {name = "timeout", offset = 56, size = 8,
            meaning = "microseconds the packet may take; all bits set: no limit"},
        {name = "elapsed", offset = 64, size = 8,
            meaning = "microseconds it had taken when it was last looked at before it left"},
    },
    kinds = {
        [0] = "data",
        [1] = "call_return",
        [2] = "signal_return",
        [3] = "call_return_ack",
        [4] = "signal_return_ack",
        [5] = "heartbeat",
        [6] = "control",
        [7] = "command_udp",
        [8] = "information_udp",
        [9] = "error",
    },
    events = {
        [0] = "none",
        [1] = "connected_to_server",
        [2] = "disconnected_from_server",
        [3] = "connected_from_client",
        [4] = "disconnected_from_client",
    },
    errors = {
        [0x00000000] = "none",
        [0x40000001] = "not_connected_tcp",
        [0x4000000E] = "disconnected_tcp",
    },
}
-- End of what is made.

local zolt = Proto("zolt", "ZOLT packets")
zolt.prefs.ports = Pref.range("Ports", "7000", "TCP and UDP ports whose traffic is dissected in any case", 65535)
zolt.prefs.largest_data = Pref.uint("Largest data", 256 * 1024 * 1024,
    "Bytes of data in one packet; what announces more on a connection is not waited for")

-- The fields: those of the table under their own names, and what is made of them.

local makers = {[1] = ProtoField.uint8, [2] = ProtoField.uint16, [4] = ProtoField.uint32, [8] = ProtoField.uint64}
local styles = {
    magic = {base.HEX, {[layout.magic] = "ZOLT"}},
    kind = {base.DEC, layout.kinds},
    flags = {base.HEX},
    error = {base.HEX, layout.errors},
}

local function title_of(name)
    local words = name:gsub("_", " "):gsub(" ip$", " IP address")
    return words:sub(1, 1):upper() .. words:sub(2)
end

local function make_field(row)
    local filter, title = "zolt." .. row.name, title_of(row.name)
    if row.name:find("_ip$") then
        return ProtoField.ipv4(filter, title, row.meaning)
    end
    local style = styles[row.name] or {base.DEC}
    return makers[row.size](filter, title, style[1], style[2], nil, row.meaning)
end

local fields, row_of = {
    event = ProtoField.uint8("zolt.event", "Event", base.DEC, layout.events, nil, "detail of a control packet"),
    returned_kind = ProtoField.uint8("zolt.returned_kind", "Kind that came back", base.DEC, layout.kinds, nil,
        "detail of an error packet"),
    payload = ProtoField.bytes("zolt.data", "Data"),
    continuation = ProtoField.bytes("zolt.continuation", "Continuation", base.NONE, "bytes of no known packet"),
    block = ProtoField.none("zolt.block", "Opening block", "what each side of a connection sends first"),
    sender_port = ProtoField.uint16("zolt.block.sender_port", "Sender's port", base.DEC),
    receiver_port = ProtoField.uint16("zolt.block.receiver_port", "Receiver's port", base.DEC, nil, nil,
        "the port by which the receiver is known to the sender"),
    block_rest = ProtoField.bytes("zolt.block.rest", "Rest"),
}, {}
for _, row in ipairs(layout.fields) do
    fields[row.name], row_of[row.name] = make_field(row), row
end

local flags_reserved = 0xFFFF - layout.flag_broadcast - layout.flag_multicast - layout.flags_application
local flag_fields = {
    ProtoField.bool("zolt.flags.broadcast", "Broadcast", 16, nil, layout.flag_broadcast),
    ProtoField.bool("zolt.flags.multicast", "Multicast", 16, nil, layout.flag_multicast),
    ProtoField.uint16("zolt.flags.reserved", "Reserved", base.HEX, nil, flags_reserved),
    ProtoField.uint16("zolt.flags.application", "The application's", base.HEX, nil, layout.flags_application),
}

local all_fields = {table.unpack(flag_fields)}
for _, field in pairs(fields) do
    table.insert(all_fields, field)
end
zolt.fields = all_fields

local malformed, protocol, sequence = expert.group.MALFORMED, expert.group.PROTOCOL, expert.group.SEQUENCE
local wrong, warning, note = expert.severity.ERROR, expert.severity.WARN, expert.severity.NOTE

local experts = {
    magic = ProtoExpert.new("zolt.bad_magic", "Not the magic of a header", malformed, wrong),
    version = ProtoExpert.new("zolt.bad_version", "A version that is not known here", malformed, wrong),
    header_size = ProtoExpert.new("zolt.bad_header_size", "Not the size of a header", malformed, wrong),
    length = ProtoExpert.new("zolt.bad_length", "Not the length that the header says: such a datagram is dropped",
        malformed, wrong),
    too_large = ProtoExpert.new("zolt.too_large", "More data than a receiver takes", malformed, wrong),
    kind = ProtoExpert.new("zolt.bad_kind", "No known kind", expert.group.UNDECODED, warning),
    reserved = ProtoExpert.new("zolt.reserved_flags", "Reserved flags are set", protocol, note),
    error = ProtoExpert.new("zolt.returned", "The packet tells of an error", expert.group.RESPONSE_CODE, note),
    ports = ProtoExpert.new("zolt.other_ports", "Not the ports of the connection: addresses are translated on the way",
        protocol, note),
    rest = ProtoExpert.new("zolt.block_rest", "The rest of the block is not zero", protocol, note),
    lost = ProtoExpert.new("zolt.lost", "No packet that is known here: its beginning was not captured, or is broken",
        sequence, note),
    cut = ProtoExpert.new("zolt.cut", "Only the beginning is here: the capture or the segment ends", sequence, note),
}
local all_experts = {}
for _, one in pairs(experts) do
    table.insert(all_experts, one)
end
zolt.experts = all_experts

-- One packet. Bytes: a range from the first byte of the header to the last one captured of the packet.

local function value_of(bytes, name)
    return bytes(row_of[name].offset, row_of[name].size)
end

local function expect_value(name)
    return function(item, range)
        if range:uint() ~= layout[name] then
            item:add_proto_expert_info(experts[name])
        end
    end
end

local function add_microseconds(item, range)
    local value = range:uint64()
    if value == UInt64.max() then
        item:append_text(" (no limit)")
    else
        item:append_text(string.format(" (%.6f s)", value:tonumber() / 1e6))
    end
end

-- What is said about a field beside its value.
local remarks = {
    magic = expect_value("magic"),
    version = expect_value("version"),
    header_size = expect_value("header_size"),
    timeout = add_microseconds,
    elapsed = add_microseconds,
}

function remarks.creation_clock(item, range)
    if range:uint64() == UInt64(0) then
        item:append_text(" (not told)")
    else
        add_microseconds(item, range)
    end
end

function remarks.kind(item, range)
    if not layout.kinds[range:uint()] then
        item:add_proto_expert_info(experts.kind)
    end
end

function remarks.detail(item, range, bytes)
    local meanings = {control = fields.event, error = fields.returned_kind}
    local meaning = meanings[layout.kinds[value_of(bytes, "kind"):uint()]]
    if meaning then
        item:add(meaning, range)
    end
end

function remarks.flags(item, range)
    for _, field in ipairs(flag_fields) do
        item:add(field, range)
    end
    if range:bitfield(8, 6) ~= 0 then
        item:add_proto_expert_info(experts.reserved)
    end
end

function remarks.error(item, range)
    if range:uint() ~= 0 then
        item:add_proto_expert_info(experts.error)
    end
end

function remarks.data_size(item, range)
    if range:uint() > zolt.prefs.largest_data then
        item:add_proto_expert_info(experts.too_large)
    end
end

local function name_in(names, value)
    return names[value] or string.format("unknown %d", value)
end

-- What came of a packet, or was told by it, in a word or two.
local function describe_detail(bytes, kind)
    local detail, error = value_of(bytes, "detail"):uint(), value_of(bytes, "error"):uint()
    local text = ""
    if kind == "control" then
        text = " " .. name_in(layout.events, detail)
    elseif kind == "error" then
        text = " of " .. name_in(layout.kinds, detail)
    end
    return error == 0 and text or string.format("%s: %s", text, layout.errors[error] or string.format("0x%08x", error))
end

local function describe(bytes)
    local number = value_of(bytes, "kind"):uint()
    local kind = name_in(layout.kinds, number)
    local text = kind .. describe_detail(bytes, kind)
    if kind == "heartbeat" then
        return text
    end
    local code, size = value_of(bytes, "code"):uint(), value_of(bytes, "data_size"):uint()
    for _, name in ipairs({"magic", "version", "header_size"}) do
        if value_of(bytes, name):uint() ~= layout[name] then
            text = string.format("%s [bad %s]", text, name)
        end
    end
    text = string.format("%s Seq=%s", text, tostring(value_of(bytes, "sequence"):uint64()))
    text = code ~= 0 and string.format("%s Code=%d", text, code) or text
    return string.format("%s Len=%d", text, size)
end

local function add_packet(tree, bytes)
    if bytes:len() < layout.header_size then
        return "beginning of a header", tree:add(zolt, bytes, "ZOLT beginning of a header")
    end
    local text = describe(bytes)
    local subtree = tree:add(zolt, bytes, "ZOLT packet: " .. text)
    for _, row in ipairs(layout.fields) do
        local range = bytes(row.offset, row.size)
        local item = subtree:add(fields[row.name], range)
        if remarks[row.name] then
            remarks[row.name](item, range, bytes)
        end
    end
    local size = math.min(bytes:len() - layout.header_size, value_of(bytes, "data_size"):uint())
    if size > 0 then
        subtree:add(fields.payload, bytes(layout.header_size, size))
    end
    return text, subtree
end

-- The opening block.

local function are_zero(bytes)
    return not bytes:find("[^\0]")
end

local function add_block(tree, bytes, pinfo)
    local subtree = tree:add(zolt, bytes, "ZOLT opening block")
    local block = subtree:add(fields.block, bytes)
    if bytes:len() <= 4 then
        return "beginning of an opening block", subtree
    end
    block:add(fields.sender_port, bytes(0, 2))
    block:add(fields.receiver_port, bytes(2, 2))
    local rest = block:add(fields.block_rest, bytes(4))
    if bytes(0, 2):uint() ~= pinfo.src_port or bytes(2, 2):uint() ~= pinfo.dst_port then
        block:add_proto_expert_info(experts.ports)
    end
    if not are_zero(bytes:raw(4)) then
        rest:add_proto_expert_info(experts.rest)
    end
    return string.format("opening block, port %d to port %d", bytes(0, 2):uint(), bytes(2, 2):uint()), subtree
end

-- What bytes are, told by themselves alone: pieces come in any order, and the capture may lack some or hold them twice.

local function number_to_bytes(number)
    return string.char(math.floor(number / 256), number % 256)
end

local magic = number_to_bytes(math.floor(layout.magic / 65536)) .. number_to_bytes(layout.magic % 65536)
local version_and_size = number_to_bytes(layout.version) .. number_to_bytes(layout.header_size)
local signature = magic .. version_and_size

-- True when one of the two begins with the other.
local function agree(one, other)
    local length = math.min(#one, #other)
    return one:sub(1, length) == other:sub(1, length)
end

-- The block of this direction, as far as it is sure.
local function opening_of(pinfo)
    return number_to_bytes(pinfo.src_port) .. number_to_bytes(pinfo.dst_port)
end

-- What begins at a place where a block or a packet may begin: "block", "packet" or "unknown". Of a few bytes: what
-- they can become.
local function look_at(tvb, offset, pinfo)
    local bytes = tvb:raw(offset, math.min(tvb:captured_len() - offset, layout.block_size))
    if agree(bytes, signature) then
        return "packet"
    elseif agree(bytes, opening_of(pinfo)) then
        return "block"
    elseif bytes:sub(1, #magic) == magic or bytes:sub(#magic + 1, #signature) == version_and_size then
        return "packet"
    end
    -- Of a connection whose addresses are translated on the way.
    local has_ports = #bytes >= #signature and not are_zero(bytes:sub(1, 2)) and not are_zero(bytes:sub(3, 4))
    return has_ports and are_zero(bytes:sub(5)) and "block" or "unknown"
end

-- Where the next header can begin: the place, and whether all of the signature is there.
local function find_packet(tvb, offset)
    local bytes = tvb:raw(offset)
    local place = bytes:find(signature, 1, true)
    if place then
        return offset + place - 1, true
    end
    for length = math.min(#signature - 1, #bytes), 1, -1 do
        if bytes:sub(-length) == signature:sub(1, length) then
            return offset + #bytes - length, false
        end
    end
    return offset + #bytes, false
end

-- A connection.

-- Bytes of the packet at that place; nil while its header is not there.
local function size_of_packet(tvb, offset)
    if tvb:captured_len() - offset < layout.header_size then
        return nil
    end
    return layout.header_size + value_of(tvb(offset), "data_size"):uint()
end

local function ask_for_more(pinfo, offset, missing)
    pinfo.desegment_offset = offset
    pinfo.desegment_len = missing or DESEGMENT_ONE_MORE_SEGMENT
end

-- The two ways on from a place. They give the next place, or none, and a text for the list, if something was shown.

-- Shows what comes before the next header that can be recognised.
local function skip_unknown(tvb, pinfo, tree, offset)
    local place, is_header = find_packet(tvb, offset)
    if place > offset then
        local bytes = tvb(offset, place - offset)
        local subtree = tree:add(zolt, bytes, "ZOLT continuation")
        subtree:add(fields.continuation, bytes):add_proto_expert_info(experts.lost)
    end
    if not is_header and place < tvb:captured_len() and pinfo.can_desegment > 0 then
        ask_for_more(pinfo, place)
    end
    return is_header and place, place > offset and "continuation"
end

-- Shows the block or packet, or asks for the rest of it.
local function take_piece(tvb, pinfo, tree, offset, is_block)
    local there = tvb:reported_len() - offset
    local length = is_block and layout.block_size or size_of_packet(tvb, offset)
    local is_whole = length and length <= there
    local is_too_large = length and length > layout.header_size + zolt.prefs.largest_data
    if not is_whole and not is_too_large and pinfo.can_desegment > 0 then
        ask_for_more(pinfo, offset, length and length - there)
        return nil
    end
    local bytes = tvb(offset, math.min(length or there, tvb:captured_len() - offset))
    local text, subtree = (is_block and add_block or add_packet)(tree, bytes, pinfo)
    if not is_too_large and bytes:len() < (length or layout.header_size) then
        subtree:add_proto_expert_info(experts.cut)
    end
    return is_whole and offset + length, text
end

local function show_in_list(pinfo, texts)
    if #texts == 0 then
        return
    end
    local shown = math.min(#texts, 4)
    local text = table.concat(texts, "; ", 1, shown)
    if #texts > shown then
        text = string.format("%s; and %d more", text, #texts - shown)
    end
    pinfo.cols.protocol = "ZOLT"
    if pinfo.private["zolt.listed"] then
        pinfo.cols.info:append("; " .. text)
    else
        pinfo.cols.info = text
    end
    pinfo.private["zolt.listed"] = "yes"
end

local function dissect_stream(tvb, pinfo, tree)
    local offset, text, texts = 0, nil, {}
    while offset and offset < tvb:captured_len() do
        local look = look_at(tvb, offset, pinfo)
        if look == "unknown" then
            offset, text = skip_unknown(tvb, pinfo, tree, offset)
        else
            offset, text = take_piece(tvb, pinfo, tree, offset, look == "block")
        end
        texts[#texts + 1] = text or nil
    end
    show_in_list(pinfo, texts)
end

-- A datagram.

local function dissect_datagram(tvb, pinfo, tree)
    local text, subtree = add_packet(tree, tvb())
    if tvb:captured_len() < tvb:reported_len() then
        subtree:add_proto_expert_info(experts.cut)
    end
    local is_header = tvb:reported_len() >= layout.header_size
    local announced = size_of_packet(tvb, 0)
    if not is_header or announced and announced ~= tvb:reported_len() then
        subtree:add_proto_expert_info(experts.length)
        text = text .. " [not the length of the datagram]"
    end
    show_in_list(pinfo, {text})
end

local PORT_TYPE_TCP = 2 -- of pinfo.port_type

local function dissect(tvb, pinfo, tree)
    local dissect_either = pinfo.port_type == PORT_TYPE_TCP and dissect_stream or dissect_datagram
    dissect_either(tvb, pinfo, tree)
    return tvb:captured_len()
end
zolt.dissector = dissect

-- Who gets here.

local function take(tvb, pinfo, tree)
    pinfo.conversation = zolt
    -- Not by way of zolt.dissector: on that way TCP does not put segments together.
    dissect(tvb, pinfo, tree)
    return true
end

-- Stricter than what is made of the bytes of a port that was told: nothing else is to be taken for this.
local function is_packet(tvb)
    return tvb:captured_len() >= #signature and tvb:raw(0, #signature) == signature
end

local function is_block(tvb, pinfo)
    local length = math.min(tvb:captured_len(), layout.block_size)
    return length >= #signature and tvb:raw(0, 4) == opening_of(pinfo) and are_zero(tvb:raw(4, length - 4))
end

zolt:register_heuristic("tcp", function(tvb, pinfo, tree)
    return (is_packet(tvb) or is_block(tvb, pinfo)) and take(tvb, pinfo, tree)
end)

zolt:register_heuristic("udp", function(tvb, pinfo, tree)
    return is_packet(tvb) and take(tvb, pinfo, tree)
end)

local tables = {DissectorTable.get("tcp.port"), DissectorTable.get("udp.port")}
local served = ""
for _, ports in ipairs(tables) do
    ports:add_for_decode_as(zolt)
end

local function serve_ports()
    for _, ports in ipairs(tables) do
        if served ~= "" then
            ports:remove(served, zolt)
        end
        if zolt.prefs.ports ~= "" then
            ports:add(zolt.prefs.ports, zolt)
        end
    end
    served = zolt.prefs.ports
end
serve_ports()
zolt.prefs_changed = serve_ports

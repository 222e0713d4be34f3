// Which destinations a node has, and where each must stand: a model of the registries that knows only what was asked of
// the node and what its peers did. It shares nothing with the relay, and time is told to it.
#ifndef TESTS_FUZZ_REGISTRY_MODEL_HPP
#define TESTS_FUZZ_REGISTRY_MODEL_HPP

#include <cstddef>
#include <cstdint>
#include <map>
#include <optional>

namespace fuzz {

/// Where a destination stands; a set of these is their sum.
enum standing : unsigned { c_nowhere = 1, c_waiting = 2, c_connecting = 4, c_established = 8 };

/// What an attempt to connect to a destination meets.
enum class reach { open, refused, lost };

class registry_model {
public:
    using microseconds = std::uint64_t;

    void add(std::size_t destination, microseconds now);
    void withdraw(std::size_t destination, microseconds now);
    void set_reach(std::size_t destination, reach met, microseconds now);
    /// Its connection ended, and not because it was withdrawn.
    void lose(std::size_t destination, microseconds now);

    /// How often it is registered, as the node counts; none when the node has no entry.
    std::optional<int> count(std::size_t destination) const;
    /// All places where it may stand, once the node has come to rest.
    unsigned allowed(std::size_t destination, microseconds now) const;
    /// True when its connection must be there.
    bool is_connected(std::size_t destination, microseconds now) const {
        return allowed(destination, now) == c_established;
    }
    bool is_wanted(std::size_t destination) const;
    /// True when an attempt that was given up may still be under way.
    bool has_remains(std::size_t destination, microseconds now) const;

private:
    struct entry {
        std::optional<int> count;
        bool is_wanted = false;        ///< a record exists for it
        bool is_connected = false;     ///< for certain
        bool may_be_connected = false; ///< it was uncertain when the destination could no longer be reached
        reach met = reach::refused;
        microseconds due = 0;     ///< from then on an open destination is connected
        microseconds remains = 0; ///< until then an attempt that met nothing may be under way
    };
    entry const& find(std::size_t destination) const;
    void settle(entry& of, microseconds now);

    std::map<std::size_t, entry> entries;
};

} // namespace fuzz

#endif

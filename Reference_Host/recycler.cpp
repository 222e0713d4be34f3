#include "Reference_Host/recycler.hpp"

#include "Reference_Host/packet_limits.hpp"

#include <atomic>
#include <new>

#if defined(__SANITIZE_ADDRESS__)
#define RECYCLER_HIDES_BLOCKS
#elif defined(__has_feature)
#if __has_feature(address_sanitizer)
#define RECYCLER_HIDES_BLOCKS
#endif
#endif
#if defined(RECYCLER_HIDES_BLOCKS)
#include <sanitizer/asan_interface.h>
#endif

namespace Zolt::Reference_Host {
namespace {

/// What a block is while it is kept: a link in a chain.
struct free_block {
    free_block* next;
};

constexpr recycler_bin c_bin_first_large = find_data_bin(1U << 16);
constexpr unsigned int c_shelf_places = 32;

/// Shared by all threads: a place holds a batch of small blocks, chained, or one large block.
struct shelf {
    std::atomic<free_block*> places[c_shelf_places];
};

constinit shelf g_shelves[c_bin_oversized]{};
constinit std::atomic<std::uint64_t> g_large_bytes{0};
constinit std::atomic<std::uint64_t> g_large_bytes_limit{std::uint64_t{64} << 20};

/// Under the address sanitizer a kept block is out of bounds but for its link.
void hide(recycler_bin bin, free_block* block) {
#if defined(RECYCLER_HIDES_BLOCKS)
    __asan_poison_memory_region(block + 1, c_recycler_bins[bin].bytes - sizeof(free_block));
#else
    static_cast<void>(bin);
    static_cast<void>(block);
#endif
}

void show(recycler_bin bin, void* block) {
#if defined(RECYCLER_HIDES_BLOCKS)
    __asan_unpoison_memory_region(block, c_recycler_bins[bin].bytes);
#else
    static_cast<void>(bin);
    static_cast<void>(block);
#endif
}

void release_chain(recycler_bin bin, free_block* first) {
    while (first != nullptr) {
        free_block* const next = first->next;
        show(bin, first);
        ::operator delete(first);
        first = next;
    }
}

/// Puts a chain on an empty place. False when the shelf is full.
bool put_on_shelf(recycler_bin bin, free_block* chain) {
    for (std::atomic<free_block*>& place : g_shelves[bin].places) {
        free_block* empty = nullptr;
        if (place.load(std::memory_order_relaxed) == nullptr &&
            place.compare_exchange_strong(empty, chain, std::memory_order_release, std::memory_order_relaxed)) {
            return true;
        }
    }
    return false;
}

/// The chain of some place, or null when there is none.
free_block* take_from_shelf(recycler_bin bin) {
    for (std::atomic<free_block*>& place : g_shelves[bin].places) {
        if (place.load(std::memory_order_relaxed) == nullptr) {
            continue;
        }
        if (free_block* const chain = place.exchange(nullptr, std::memory_order_acquire); chain != nullptr) {
            return chain;
        }
    }
    return nullptr;
}

/// The small blocks that one thread keeps.
struct thread_store {
    struct chain {
        free_block* first = nullptr;
        std::uint32_t count = 0;
    };
    chain chains[c_bin_first_large];

    void release_all() {
        for (recycler_bin bin = 0; bin < c_bin_first_large; ++bin) {
            release_chain(bin, chains[bin].first);
            chains[bin] = {};
        }
    }
};

// One pointer in the thread's static block: reached without a call, also from a library opened at run time.
__attribute__((tls_model("initial-exec"))) constinit thread_local thread_store* t_store = nullptr;
constinit thread_local bool t_store_closed = false;

/// Ends the thread's store; blocks that the thread gives back after that go to the heap.
struct store_ender {
    ~store_ender() {
        t_store_closed = true;
        t_store->release_all();
        delete t_store;
        t_store = nullptr;
    }
};

thread_store* open_store() {
    if (t_store_closed) {
        return nullptr;
    }
    t_store = new (std::nothrow) thread_store;
    if (t_store != nullptr) {
        static thread_local store_ender ender;
        static_cast<void>(ender);
    }
    return t_store;
}

thread_store* get_store() {
    thread_store* const store = t_store;
    return store != nullptr ? store : open_store();
}

/// Fills an empty chain from the shelf: a batch is half of what a thread may keep.
bool refill(thread_store::chain& chain, recycler_bin bin) {
    chain.first = take_from_shelf(bin);
    chain.count = chain.first != nullptr ? c_recycler_bins[bin].per_thread / 2 : 0;
    return chain.first != nullptr;
}

/// Moves a batch off a full chain: to the shelf, or back to the heap when that is full.
void unload(thread_store::chain& chain, recycler_bin bin) {
    std::uint32_t const batch = c_recycler_bins[bin].per_thread / 2;
    free_block* const first = chain.first;
    free_block* last = first;
    for (std::uint32_t i = 1; i < batch; ++i) {
        last = last->next;
    }
    chain.first = last->next;
    chain.count -= batch;
    last->next = nullptr;
    if (!put_on_shelf(bin, first)) {
        release_chain(bin, first);
    }
}

void* obtain_small(recycler_bin bin) {
    thread_store* const store = get_store();
    if (store == nullptr) {
        return nullptr;
    }
    thread_store::chain& chain = store->chains[bin];
    if (chain.count == 0 && !refill(chain, bin)) {
        return nullptr;
    }
    free_block* const block = chain.first;
    chain.first = block->next;
    --chain.count;
    show(bin, block);
    return block;
}

bool keep_small(recycler_bin bin, void* memory) {
    thread_store* const store = get_store();
    if (store == nullptr) {
        return false;
    }
    thread_store::chain& chain = store->chains[bin];
    if (chain.count == c_recycler_bins[bin].per_thread) {
        unload(chain, bin);
    }
    chain.first = new (memory) free_block{chain.first};
    ++chain.count;
    hide(bin, chain.first);
    return true;
}

void* obtain_large(recycler_bin bin) {
    free_block* const block = take_from_shelf(bin);
    if (block != nullptr) {
        g_large_bytes.fetch_sub(c_recycler_bins[bin].bytes, std::memory_order_relaxed);
        show(bin, block);
    }
    return block;
}

bool keep_large(recycler_bin bin, void* memory) {
    std::uint64_t const bytes = c_recycler_bins[bin].bytes;
    std::uint64_t const kept = g_large_bytes.fetch_add(bytes, std::memory_order_relaxed) + bytes;
    if (kept <= g_large_bytes_limit.load(std::memory_order_relaxed)) {
        free_block* const block = new (memory) free_block{nullptr};
        hide(bin, block);
        if (put_on_shelf(bin, block)) {
            return true;
        }
        show(bin, block);
    }
    g_large_bytes.fetch_sub(bytes, std::memory_order_relaxed);
    return false;
}

} // namespace

void* obtain_block(recycler_bin bin, std::uint64_t data_size) {
    void* block = nullptr;
    if (bin < c_bin_first_large) {
        block = obtain_small(bin);
    } else if (bin < c_bin_oversized) {
        block = obtain_large(bin);
    }
    return block != nullptr ? block : ::operator new(block_bytes(bin, data_size), std::nothrow);
}

void return_block(recycler_bin bin, void* block) {
    bool const kept =
        bin < c_bin_first_large ? keep_small(bin, block) : bin < c_bin_oversized && keep_large(bin, block);
    if (!kept) {
        ::operator delete(block);
    }
}

void set_kept_bytes_limit(std::uint64_t bytes) {
    g_large_bytes_limit.store(bytes, std::memory_order_relaxed);
}

std::uint64_t get_kept_bytes() {
    return g_large_bytes.load(std::memory_order_relaxed);
}

void release_kept_memory() {
    if (t_store != nullptr) {
        t_store->release_all();
    }
    for (recycler_bin bin = 0; bin < c_bin_oversized; ++bin) {
        while (free_block* const chain = take_from_shelf(bin)) {
            if (bin >= c_bin_first_large) {
                g_large_bytes.fetch_sub(c_recycler_bins[bin].bytes, std::memory_order_relaxed);
            }
            release_chain(bin, chain);
        }
    }
}

} // namespace Zolt::Reference_Host

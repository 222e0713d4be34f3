// Memory that is handed out again: how often the heap is asked, within which bounds, and across threads.
#include "tests/unit/reference_host_fixtures.hpp"

#include "Reference_Host/packet_storage.hpp"
#include "Reference_Host/recycler.hpp"
#include "tests/support/allocations.hpp"

#include <array>
#include <atomic>
#include <cstring>
#include <malloc.h>
#include <mutex>

namespace reference_host_test {
namespace {

constexpr std::uint32_t c_mebibyte = 1U << 20;

class recycler : public ::testing::Test {
protected:
    void SetUp() override { release_kept_memory(); }

    void TearDown() override {
        release_kept_memory();
        EXPECT_EQ(get_kept_bytes(), 0U);
        set_kept_bytes_limit(std::uint64_t{64} << 20);
    }

    static struct_token make_filled(std::uint32_t size) {
        struct_token one = make_packet({}, size);
        std::memset(one.get_data(), 0x55, size);
        return one;
    }

    /// Calls of operator new on this thread during the operation.
    template <class Operation>
    static long count_new(Operation operation) {
        long const before = relay_test::count_allocations();
        operation();
        return relay_test::count_allocations() - before;
    }
};

TEST_F(recycler, bins_hold_what_they_are_for) {
    for (std::uint64_t const size : {0ULL, 1ULL, 128ULL, 129ULL, 32768ULL, 32769ULL, 65536ULL, 65537ULL, 1ULL << 26}) {
        recycler_bin const bin = find_data_bin(size);
        ASSERT_LT(bin, c_bin_oversized) << size;
        EXPECT_GE(block_bytes(bin, size), sizeof(data_part) + size);
        if (bin > c_bin_first_data) {
            EXPECT_LT(block_bytes(bin - 1, size), sizeof(data_part) + size) << "the smallest that holds it";
        }
    }
    EXPECT_EQ(find_data_bin((1ULL << 26) + 1), c_bin_oversized);
    EXPECT_EQ(block_bytes(c_bin_oversized, 1ULL << 27), sizeof(data_part) + (1ULL << 27));
}

TEST_F(recycler, asks_the_heap_for_nothing_once_it_is_warm) {
    for (std::uint32_t const size : {0U, 64U, 1000U, 30000U, c_mebibyte, 64U * c_mebibyte - 1000U}) {
        set_kept_bytes_limit(std::uint64_t{1} << 30);
        make_packet({}, size).free();
        EXPECT_EQ(count_new([&] {
                      for (int i = 0; i < 100; ++i) {
                          make_packet({}, size).free();
                      }
                  }),
                  0)
            << size;
    }
}

TEST_F(recycler, oversized_data_goes_straight_back) {
    std::uint32_t const size = 65 * c_mebibyte;
    make_packet({}, size).free();
    EXPECT_EQ(count_new([&] { make_packet({}, size).free(); }), 1);
    EXPECT_EQ(get_kept_bytes(), 0U);
}

TEST_F(recycler, keeps_large_data_up_to_its_limit) {
    set_kept_bytes_limit(std::uint64_t{3} * c_mebibyte);
    std::array<struct_token, 5> tokens;
    for (struct_token& token : tokens) {
        token = make_filled(c_mebibyte);
    }
    for (struct_token& token : tokens) {
        token.free();
    }
    EXPECT_GT(get_kept_bytes(), c_mebibyte);
    EXPECT_LE(get_kept_bytes(), 3 * c_mebibyte);
    std::uint64_t const kept = get_kept_bytes();
    struct_token again = make_filled(c_mebibyte);
    EXPECT_LT(get_kept_bytes(), kept);
    again.free();
    EXPECT_EQ(get_kept_bytes(), kept);
}

TEST_F(recycler, keeps_no_more_large_blocks_of_one_size_than_it_has_places) {
    set_kept_bytes_limit(std::uint64_t{1} << 40);
    std::array<struct_token, 40> tokens;
    for (struct_token& token : tokens) {
        token = make_packet({}, 40000U);
    }
    for (struct_token& token : tokens) {
        token.free();
    }
    EXPECT_LE(get_kept_bytes(), 32 * (65536 + sizeof(data_part)));
    EXPECT_GE(get_kept_bytes(), 31 * std::uint64_t{65536});
}

TEST_F(recycler, one_thread_frees_for_ever_what_another_allocates) {
    constexpr int c_rounds = 300;
    constexpr std::size_t c_batch = 100;
    std::vector<struct_token> passed(c_batch);
    std::atomic<int> turn{0};
    std::thread freeing([&] {
        for (int round = 0; round < c_rounds; ++round) {
            EXPECT_TRUE(comes_true([&] { return turn == 2 * round + 1; }));
            for (struct_token& token : passed) {
                token.free();
            }
            turn = 2 * round + 2;
        }
    });
    long asked_when_warm = 0;
    for (int round = 0; round < c_rounds; ++round) {
        EXPECT_TRUE(comes_true([&] { return turn == 2 * round; }));
        long const asked = count_new([&] {
            for (struct_token& token : passed) {
                token = make_filled(64);
            }
        });
        asked_when_warm += round < 10 ? 0 : asked;
        turn = 2 * round + 1;
    }
    freeing.join();
    EXPECT_LT(asked_when_warm, static_cast<long>(c_batch)) << "batches come back by the shelf";
}

TEST_F(recycler, a_thread_that_ends_gives_back_what_it_kept) {
    auto const use_and_end = [] {
        std::thread([] {
            std::array<struct_token, 60> tokens;
            for (struct_token& token : tokens) {
                token = make_filled(2000);
            }
            for (struct_token& token : tokens) {
                token.free();
            }
        }).join();
    };
    use_and_end();
    std::size_t const before = ::mallinfo2().uordblks;
    for (int i = 0; i < 200; ++i) {
        use_and_end();
    }
    std::size_t const after = ::mallinfo2().uordblks;
    EXPECT_LT(after, before + std::size_t{60} * 2000) << "not even one thread's worth more";
}

/// Frees a token when the thread's own storage has ended: the order in which it was made is turned round at the end.
struct late_user {
    struct_token token;
    ~late_user() { token.free(); }
};

TEST_F(recycler, serves_a_thread_to_its_very_end) {
    std::thread([] {
        static thread_local late_user late;
        late.token.reset();
        late.token = make_filled(100);
    }).join();
    EXPECT_EQ(count_new([] { make_filled(100).free(); }) > 0, true) << "this thread's own chains were empty";
}

TEST_F(recycler, many_threads_pass_packets_among_each_other) {
    constexpr int c_threads = 4;
    constexpr int c_rounds = 2000;
    std::array<std::atomic<struct_token_node*>, 16> places{};
    thread_group(c_threads, [&places](unsigned int number) {
        for (unsigned int round = 0; round < c_rounds; ++round) {
            unsigned int const mix = (round * 2654435761U + number * 40503U) >> 8;
            std::uint32_t const size = mix % 8 == 0 ? 70000 : mix % 3000;
            struct_token mine = make_packet({}, size + 1);
            std::memset(mine.get_data(), static_cast<int>(size & 0xFF), size + 1);
            struct_token theirs = token_of(places[mix % places.size()].exchange(node_of(mine)));
            if (theirs.has_data()) {
                auto const data = get_data_span(theirs);
                EXPECT_EQ(data.front(), (data.size() - 1) & 0xFF);
                EXPECT_EQ(data.back(), (data.size() - 1) & 0xFF);
            }
            theirs.free();
        }
    }).join();
    for (auto& place : places) {
        token_of(place.load()).free();
    }
}

} // namespace
} // namespace reference_host_test

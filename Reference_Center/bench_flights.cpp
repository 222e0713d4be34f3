#include "Reference_Center/bench_flights.hpp"

#include <bit>

namespace Zolt::Reference_Center {

flight_book::flight_book(std::size_t room, std::uint64_t first_number)
    : due_times(std::bit_ceil(room)), oldest(first_number), next(first_number) {}

void flight_book::add(bench_time due) {
    place_of(next) = due;
    ++next;
    ++under_way;
}

std::optional<bench_time> flight_book::take(std::uint64_t number) {
    if (number < oldest || number >= next || place_of(number) == 0) {
        return std::nullopt;
    }
    bench_time const due = place_of(number);
    place_of(number) = 0;
    --under_way;
    skip_ended();
    return due;
}

std::optional<bench_time> flight_book::take_oldest(bench_time before) {
    return oldest != next && place_of(oldest) < before ? take(oldest) : std::nullopt;
}

void flight_book::skip_ended() {
    while (oldest != next && place_of(oldest) == 0) {
        ++oldest;
    }
}

} // namespace Zolt::Reference_Center

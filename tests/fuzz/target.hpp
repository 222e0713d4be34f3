// What a fuzz target is: one function, which libFuzzer calls with its inputs and replay_main.cpp with files.
#ifndef TESTS_FUZZ_TARGET_HPP
#define TESTS_FUZZ_TARGET_HPP

#include <cstddef>
#include <cstdint>

extern "C" int LLVMFuzzerTestOneInput(std::uint8_t const* data, std::size_t size);

#endif

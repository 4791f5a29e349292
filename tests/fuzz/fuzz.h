// fuzz.h -- what the fuzz targets share. A target is LLVMFuzzerTestOneInput: it reads its input as
// a list of operations, does them, and compares with a simple model what can be compared. libFuzzer
// calls it with what it makes up (option TDBG_FUZZ, clang), replay.cpp with the kept corpus.
#pragma once

#include <stdint.h>
#include <stdio.h>
#include <stdlib.h>

#include <string>

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* bytes, size_t size);

// Ends the process: the input is a finding.
#define FUZZ_CHECK(condition)                                               \
    do {                                                                    \
        if (!(condition)) {                                                 \
            fprintf(stderr, "%s:%d: %s\n", __FILE__, __LINE__, #condition); \
            abort();                                                        \
        }                                                                   \
    } while (0)

// The input from its beginning; what is asked for after its end is zero or empty.
class tInput {
public:
    tInput(const uint8_t* bytes, size_t size) : next_(bytes), end_(bytes + size) {}
    bool is_empty() const { return next_ == end_; }
    uint8_t byte() { return next_ < end_ ? *next_++ : uint8_t{0}; }
    unsigned below(unsigned limit) { return byte() % limit; }
    int number() {
        uint32_t value = 0;
        for (int i = 0; i < 4; ++i) {
            value = value << 8 | byte();
        }
        return static_cast<int>(value);
    }
    // A line mostly from a few, now and then any number.
    int line() {
        const uint8_t first = byte();
        return first < 240 ? first % 12 : number();
    }
    // Up to 255 bytes without a zero, or, with a first byte of 255, many times what follows.
    std::string text() {
        const uint8_t length = byte();
        size_t repeats = 1;
        size_t wanted = length;
        if (length == 255) {
            repeats = size_t{1} << below(14);
            wanted = byte();
        }
        std::string part;
        while (part.size() < wanted && next_ < end_ && *next_ != 0) {
            part.push_back(static_cast<char>(*next_++));
        }
        if (next_ < end_ && *next_ == 0) {
            ++next_;
        }
        std::string whole;
        for (size_t i = 0; i < repeats && whole.size() < 70000; ++i) {
            whole += part;
        }
        return whole;
    }

private:
    const uint8_t* next_;
    const uint8_t* end_;
};

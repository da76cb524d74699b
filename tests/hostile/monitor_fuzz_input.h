#ifndef MONITOR_FUZZ_INPUT_H
#define MONITOR_FUZZ_INPUT_H

#include <array>
#include <cstddef>
#include <cstdint>
#include <cstring>
#include <string>

/// \file
/// What every part of the fuzz target needs: the bytes of one execution, and how it ends when something is wrong.

namespace monitor_fuzz {

/// What outputs hold before an operation. No answer of the driver is this number, so it can only be what was there.
constexpr uint32_t kPoison = 0x5A5A5A5A;

/// Prints what is wrong and during which operation, and ends the process.
[[noreturn]] void Fail(const std::string& what);

inline void Require(bool bHolds, const char* what) {
    if (!bHolds) Fail(what);
}

/// The bytes of one execution, first to last; zeros when they are used up, so that every prefix is an input too.
class Input {
public:
    Input(const uint8_t* data, size_t size) : Data(data), Size(size) {}

    bool AtEnd() const { return Position >= Size; }
    uint8_t Byte() { return AtEnd() ? uint8_t{0} : Data[Position++]; }

    uint32_t Word() {
        uint32_t word = 0;
        for (int i = 0; i < 4; ++i) word = word << 8 | Byte();
        return word;
    }

    /// Mostly small, often a bound of something, at times anything.
    uint32_t Number() {
        constexpr std::array<uint32_t, 16> kBounds = {128,        4095,       4096,       4097,      8192,   65535,
                                                      99999,      100000,     200000,     300000,    300001, 0x7FFFFFFF,
                                                      0x80000000, 0xFFFFFFFE, 0xFFFFFFFF, 1000000000};
        const uint8_t choice = Byte();
        if (choice < 128) return choice;
        if (choice < 224) return kBounds[choice % kBounds.size()];
        const uint32_t word = Word();
        return word == kPoison ? word + 1 : word;
    }

    /// Any bit pattern: not-a-numbers and infinities too.
    double AnyDouble() {
        const uint64_t bits = uint64_t{Word()} << 32 | Word();
        double number = 0.0;
        std::memcpy(&number, &bits, sizeof number);
        return number;
    }

private:
    const uint8_t* Data;
    size_t Size;
    size_t Position = 0;
};

}  // namespace monitor_fuzz

#endif  // MONITOR_FUZZ_INPUT_H

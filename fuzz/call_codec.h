// HAL calls as bytes, for a fuzzer to change: any bytes are calls, and a small change to the bytes
// is a small change to the calls.

#pragma once

#include <algorithm>
#include <array>
#include <cstddef>
#include <cstdint>
#include <iterator>
#include <limits>
#include <string>
#include <string_view>
#include <variant>
#include <vector>

#include "tools/replay/operations.h"
#include "tools/replay/session.h"

namespace fuzz {

// A number is a byte: one from -16 on, one of these, or RAW_NUMBER with eight bytes behind it.
constexpr std::array<int64_t, 12> NUMBERS = {3840,
                                             4096,
                                             0x8001,
                                             0x8005,
                                             4294967296,
                                             4294967297,
                                             2147483647,
                                             2147483648,
                                             -2147483648,
                                             -2147483649,
                                             std::numeric_limits<int64_t>::max(),
                                             std::numeric_limits<int64_t>::min()};
constexpr int64_t LOWEST_SMALL_NUMBER = -16;
constexpr uint8_t RAW_NUMBER = 255;
constexpr uint8_t FIRST_NUMBER = RAW_NUMBER - NUMBERS.size();

// A text is a byte: one of these, or a length with so many bytes behind it.
constexpr std::array<std::string_view, 10> TEXTS = {"SensorFrontEnd0",     "MCTFE0_cam0",
                                                    "ToneMapper",          "VideoStabilizer",
                                                    "EncoderFeed",         "MCTFE0",
                                                    "SoloThreadManager",   "AuxThreadManager",
                                                    "RecyclThreadManager", "X"};

class Reader {
  public:
    Reader(const uint8_t* data, size_t size) : next(data), end(data + size) {}

    bool IsAtEnd() const { return next == end; }

    uint8_t Byte() { return IsAtEnd() ? uint8_t{0} : *next++; }

    int64_t Number() {
        const uint8_t first = Byte();
        if (first < FIRST_NUMBER) {
            return first + LOWEST_SMALL_NUMBER;
        }
        if (first < RAW_NUMBER) {
            return NUMBERS[first - FIRST_NUMBER];
        }
        uint64_t number = 0;
        for (int i = 0; i < 8; ++i) {
            number = number << 8 | Byte();
        }
        return static_cast<int64_t>(number);
    }

    std::string Text() {
        const uint8_t first = Byte();
        if (first < TEXTS.size()) {
            return std::string(TEXTS[first]);
        }
        std::string text;
        for (size_t length = first - TEXTS.size(); length > 0 && !IsAtEnd(); --length) {
            text += static_cast<char>(Byte());
        }
        return text;
    }

    replay::Call Call(const replay::Operation& operation) {
        replay::Call call{&operation, {}};
        for (const replay::Parameter& parameter : operation.parameters) {
            replay::Value value = parameter.type;
            std::visit([this](auto& argument) { Read(argument); }, value);
            call.arguments.push_back(value);
        }
        return call;
    }

  private:
    void Read(bool& flag) { flag = Byte() % 2 == 0; }
    void Read(int32_t& number) { number = static_cast<int32_t>(Number()); }
    void Read(int64_t& number) { number = Number(); }
    void Read(std::string& text) { text = Text(); }
    void Read(std::vector<int32_t>& numbers) {
        numbers.resize(Byte() % 8);
        for (int32_t& number : numbers) {
            Read(number);
        }
    }

    const uint8_t* next;
    const uint8_t* end;
};

// The way back, for the seeds.
class Writer {
  public:
    void Call(const replay::Call& call) {
        Byte(static_cast<size_t>(call.operation - replay::Operations().data()));
        for (const replay::Value& value : call.arguments) {
            std::visit([this](const auto& argument) { Write(argument); }, value);
        }
    }

    const std::string& Bytes() const { return bytes; }

  private:
    void Byte(size_t byte) { bytes += static_cast<char>(byte); }

    void Write(bool flag) { Byte(flag ? 0 : 1); }
    void Write(int32_t number) { Write(int64_t{number}); }
    void Write(int64_t number) {
        const auto* const known = std::find(NUMBERS.begin(), NUMBERS.end(), number);
        if (number >= LOWEST_SMALL_NUMBER && number < LOWEST_SMALL_NUMBER + FIRST_NUMBER) {
            Byte(static_cast<size_t>(number - LOWEST_SMALL_NUMBER));
        } else if (known != NUMBERS.end()) {
            Byte(FIRST_NUMBER + static_cast<size_t>(known - NUMBERS.begin()));
        } else {
            Byte(RAW_NUMBER);
            for (int shift = 56; shift >= 0; shift -= 8) {
                Byte(static_cast<uint64_t>(number) >> shift & 0xff);
            }
        }
    }
    void Write(const std::string& text) {
        const auto* const known = std::find(TEXTS.begin(), TEXTS.end(), text);
        if (known != TEXTS.end()) {
            Byte(static_cast<size_t>(known - TEXTS.begin()));
        } else {
            const std::string some = text.substr(0, 100);
            Byte(TEXTS.size() + some.size());
            bytes += some;
        }
    }
    void Write(const std::vector<int32_t>& numbers) {
        const size_t size = std::min<size_t>(numbers.size(), 7);
        Byte(size);
        for (size_t i = 0; i < size; ++i) {
            Write(numbers[i]);
        }
    }

    std::string bytes;
};

}  // namespace fuzz

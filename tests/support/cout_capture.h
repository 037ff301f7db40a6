// Catching what code under test prints.

#pragma once

#include <iostream>
#include <sstream>
#include <string>

namespace tesk::test {

/// Catches what std::cout gets while it lives.
class CoutCapture {
public:
    CoutCapture() : previous_(std::cout.rdbuf(&buffer_)) {}
    ~CoutCapture() { std::cout.rdbuf(previous_); }
    CoutCapture(CoutCapture const&) = delete;
    CoutCapture& operator=(CoutCapture const&) = delete;

    std::string text() const { return buffer_.str(); }
    int n_flushes() const { return buffer_.n_flushes; }

private:
    struct Buffer : std::stringbuf {
        int n_flushes = 0;
        int sync() override {
            ++n_flushes;
            return 0;
        }
    };

    Buffer buffer_;
    std::streambuf* previous_;
};

}  // namespace tesk::test

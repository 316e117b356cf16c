// Shared by the bounded-function tests: a destination at the start of a junk-filled area,
// so that every byte behind destMax is a guard that must keep its junk.
#pragma once

#include "bounded/bounded.h"

#include <gtest/gtest.h>

#include <string.h>

#include <algorithm>
#include <string>
#include <vector>

constexpr char JUNK = '#';

struct Area {
    std::vector<char> bytes, before;
    // Room for destMax bytes (at most 2048: larger capacities are refused before any write)
    // and a 16-byte guard; text, if given, is written at the start.
    explicit Area(size_t max, const char* text = nullptr) : bytes(std::min<size_t>(max, 2048) + 16, JUNK) {
        if (text != nullptr) {
            memcpy(bytes.data(), text, strlen(text) + 1);
        }
        before = bytes;
    }
    char* data() { return bytes.data(); }
    size_t Room() const { return bytes.size() - 16; }
    // The text up to the first zero byte within destMax.
    std::string Text() const { return std::string(bytes.data(), strnlen(bytes.data(), Room())); }
    bool Filled(size_t to, char value) const {
        return std::string(bytes.data(), to) == std::string(to, value);
    }
    bool Unchanged(size_t from) const {
        return std::equal(bytes.begin() + from, bytes.end(), before.begin() + from);
    }
    bool GuardIntact() const { return Unchanged(Room()); }
};

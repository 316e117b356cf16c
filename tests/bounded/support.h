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
    size_t destMax;
    std::vector<char> bytes, before;
    // Room for destMax bytes (at most 2048: larger capacities are refused before any write)
    // and a 16-byte guard; text, if given, is written at the start.
    explicit Area(size_t max, const char* text = nullptr)
        : destMax(max), bytes(std::min<size_t>(max, 2048) + 16, JUNK) {
        if (text != nullptr) {
            memcpy(bytes.data(), text, strlen(text) + 1);
        }
        before = bytes;
    }
    char* data() { return bytes.data(); }
    size_t Room() const { return bytes.size() - 16; }
    // The text up to the first zero byte within destMax.
    std::string Text() const { return std::string(bytes.data(), strnlen(bytes.data(), Room())); }
    bool Terminated() const { return memchr(bytes.data(), '\0', Room()) != nullptr; }
    bool All(size_t from, size_t to, char value) const {
        return std::all_of(bytes.begin() + from, bytes.begin() + to, [value](char b) { return b == value; });
    }
    bool Unchanged(size_t from) const {
        return std::equal(bytes.begin() + from, bytes.end(), before.begin() + from);
    }
    bool GuardIntact() const { return Unchanged(Room()); }
};

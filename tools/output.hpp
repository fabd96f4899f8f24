// output.hpp - what tcamwrap-sim prints: JSON reports, hex bytes, and a progress
// bar that only appears when stderr is a terminal.
#pragma once

#include <chrono>
#include <cstdint>
#include <string>
#include <string_view>
#include <utility>
#include <variant>
#include <vector>

namespace tcamwrap::cli
{

// A JSON value built in code and printed once; objects keep insertion order.
class Json
{
  public:
    using Array = std::vector<Json>;
    using Object = std::vector<std::pair<std::string, Json>>;

    Json() : v_(nullptr) {}
    Json(bool b) : v_(b) {}
    Json(int i) : v_(static_cast<int64_t>(i)) {}
    Json(long i) : v_(static_cast<int64_t>(i)) {}
    Json(long long i) : v_(static_cast<int64_t>(i)) {}
    Json(unsigned u) : v_(static_cast<uint64_t>(u)) {}
    Json(unsigned long u) : v_(static_cast<uint64_t>(u)) {}
    Json(unsigned long long u) : v_(static_cast<uint64_t>(u)) {}
    Json(double d) : v_(d) {}
    Json(const char *s) : v_(std::string(s)) {}
    Json(std::string s) : v_(std::move(s)) {}
    Json(std::string_view s) : v_(std::string(s)) {}
    Json(Array a) : v_(std::move(a)) {}
    Json(Object o) : v_(std::move(o)) {}

    static Json object() { return Json(Object{}); }
    static Json array() { return Json(Array{}); }

    // Adds a member (object) or an element (array); returns *this.
    Json &set(std::string key, Json value);
    Json &push(Json value);

    std::string dump() const;
    // Removes every member named key, at any depth.
    void drop(std::string_view key);

  private:
    void dump_to(std::string &out) const;
    std::variant<std::nullptr_t, bool, int64_t, uint64_t, double, std::string, Array, Object> v_;
};

std::string json_escape(std::string_view text);

// "0x1f": locations in messages, as the library prints them.
std::string hexnum(uint32_t v);
// Lower-case hex of a byte run, no separators.
std::string hex(const uint8_t *bytes, std::size_t n);
// Parses hex digits (spaces, ':' and '.' ignored, optional 0x); empty on error.
bool parse_hex(std::string_view text, std::vector<uint8_t> &out);

// A one-line progress bar on stderr, redrawn at most ten times a second; does
// nothing when stderr is not a terminal.
class Progress
{
  public:
    Progress(std::string label, uint64_t total);
    ~Progress();
    Progress(const Progress &) = delete;
    Progress &operator=(const Progress &) = delete;

    void update(uint64_t done);
    void finish();

  private:
    void draw(uint64_t done);

    std::string label_;
    uint64_t total_;
    bool active_;
    bool drawn_ = false;
    std::chrono::steady_clock::time_point last_{};
};

// Seconds since start, for phase timings.
double seconds_since(std::chrono::steady_clock::time_point start);

} // namespace tcamwrap::cli

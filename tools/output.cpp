// output.cpp - JSON, hex and the progress bar of tcamwrap-sim.
#include "output.hpp"

#include <cctype>
#include <cmath>
#include <cstdio>
#include <unistd.h>

namespace tcamwrap::cli
{

Json &Json::set(std::string key, Json value)
{
    if (!std::holds_alternative<Object>(v_))
        v_ = Object{};
    std::get<Object>(v_).emplace_back(std::move(key), std::move(value));
    return *this;
}

Json &Json::push(Json value)
{
    if (!std::holds_alternative<Array>(v_))
        v_ = Array{};
    std::get<Array>(v_).push_back(std::move(value));
    return *this;
}

void Json::drop(std::string_view key)
{
    if (auto *a = std::get_if<Array>(&v_))
        for (Json &e : *a)
            e.drop(key);
    if (auto *o = std::get_if<Object>(&v_)) {
        std::erase_if(*o, [key](const auto &member) { return member.first == key; });
        for (auto &member : *o)
            member.second.drop(key);
    }
}

std::string Json::dump() const
{
    std::string out;
    dump_to(out);
    return out;
}

void Json::dump_to(std::string &out) const
{
    struct Visitor {
        std::string &out;
        void operator()(std::nullptr_t) { out += "null"; }
        void operator()(bool b) { out += b ? "true" : "false"; }
        void operator()(int64_t i) { out += std::to_string(i); }
        void operator()(uint64_t u) { out += std::to_string(u); }
        void operator()(double d)
        {
            if (!std::isfinite(d)) {
                out += "null";
                return;
            }
            char buf[32];
            std::snprintf(buf, sizeof buf, "%.6g", d);
            out += buf;
        }
        void operator()(const std::string &s) { out += '"' + json_escape(s) + '"'; }
        void operator()(const Array &a)
        {
            out += '[';
            for (std::size_t i = 0; i < a.size(); ++i) {
                if (i != 0)
                    out += ',';
                a[i].dump_to(out);
            }
            out += ']';
        }
        void operator()(const Object &o)
        {
            out += '{';
            for (std::size_t i = 0; i < o.size(); ++i) {
                if (i != 0)
                    out += ',';
                out += '"' + json_escape(o[i].first) + "\":";
                o[i].second.dump_to(out);
            }
            out += '}';
        }
    };
    std::visit(Visitor{out}, v_);
}

std::string json_escape(std::string_view text)
{
    std::string out;
    for (char c : text) {
        switch (c) {
        case '"':
            out += "\\\"";
            break;
        case '\\':
            out += "\\\\";
            break;
        case '\n':
            out += "\\n";
            break;
        case '\t':
            out += "\\t";
            break;
        case '\r':
            out += "\\r";
            break;
        default:
            if (static_cast<unsigned char>(c) < 0x20) {
                char buf[8];
                std::snprintf(buf, sizeof buf, "\\u%04x", static_cast<unsigned char>(c));
                out += buf;
            } else {
                out += c;
            }
        }
    }
    return out;
}

std::string hexnum(uint32_t v)
{
    char buf[16];
    std::snprintf(buf, sizeof buf, "0x%x", v);
    return buf;
}

std::string hex(const uint8_t *bytes, std::size_t n)
{
    static const char digits[] = "0123456789abcdef";
    std::string out;
    out.reserve(n * 2);
    for (std::size_t i = 0; i < n; ++i) {
        out += digits[bytes[i] >> 4];
        out += digits[bytes[i] & 15];
    }
    return out;
}

bool parse_hex(std::string_view text, std::vector<uint8_t> &out)
{
    out.clear();
    if (text.size() > 2 && text[0] == '0' && (text[1] == 'x' || text[1] == 'X'))
        text.remove_prefix(2);
    std::string digits;
    for (char c : text) {
        if (c == ' ' || c == ':' || c == '.')
            continue;
        if (!std::isxdigit(static_cast<unsigned char>(c)))
            return false;
        digits += c;
    }
    if (digits.empty() || digits.size() % 2 != 0)
        return false;
    for (std::size_t i = 0; i < digits.size(); i += 2)
        out.push_back(static_cast<uint8_t>(std::stoul(digits.substr(i, 2), nullptr, 16)));
    return true;
}

Progress::Progress(std::string label, uint64_t total)
    : label_(std::move(label)), total_(total), active_(::isatty(STDERR_FILENO) == 1)
{
}

Progress::~Progress()
{
    finish();
}

void Progress::update(uint64_t done)
{
    if (!active_)
        return;
    auto now = std::chrono::steady_clock::now();
    if (drawn_ && now - last_ < std::chrono::milliseconds(100) && done < total_)
        return;
    last_ = now;
    draw(done);
}

void Progress::draw(uint64_t done)
{
    constexpr int kWidth = 30;
    const double share =
        total_ == 0 ? 1.0 : static_cast<double>(done) / static_cast<double>(total_);
    const int filled = static_cast<int>(share * kWidth);
    std::string bar(static_cast<std::size_t>(filled), '#');
    bar.resize(kWidth, '.');
    std::fprintf(stderr, "\r%-22s [%s] %3d%% %llu/%llu", label_.c_str(), bar.c_str(),
                 static_cast<int>(share * 100), static_cast<unsigned long long>(done),
                 static_cast<unsigned long long>(total_));
    std::fflush(stderr);
    drawn_ = true;
}

void Progress::finish()
{
    if (!active_ || !drawn_)
        return;
    draw(total_);
    std::fputs("\n", stderr);
    drawn_ = false;
    active_ = false;
}

double seconds_since(std::chrono::steady_clock::time_point start)
{
    return std::chrono::duration<double>(std::chrono::steady_clock::now() - start).count();
}

} // namespace tcamwrap::cli

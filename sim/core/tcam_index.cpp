// tcam_index.cpp - the TCAM search index.
#include "tcam_index.hpp"

#include <algorithm>

namespace tcamwrap::sim {

std::string TcamIndex::masked(std::span<const uint8_t> value, std::span<const uint8_t> mask)
{
    std::string out(value.size(), '\0');
    for (std::size_t i = 0; i < value.size(); ++i)
        out[i] = static_cast<char>(value[i] & mask[i]);
    return out;
}

void TcamIndex::rebuild(const TableView &t, uint64_t gen)
{
    groups_.clear();
    order_stale_ = true;
    built_ = true;
    gen_ = gen;
    for (uint32_t loc = 0; loc < t.size; ++loc)
        if (t.valid[loc] != 0)
            add(t, loc);
}

void TcamIndex::add(const TableView &t, uint32_t loc)
{
    auto mask = t.mask(loc);
    std::string mask_key(mask.begin(), mask.end());
    Group &g = groups_[std::move(mask_key)];
    uint16_t prio = t.prio[loc];
    if (g.entries == 0 || prio > g.max_prio())
        order_stale_ = true;
    g.by_value[masked(t.value(loc), mask)].push_back(loc);
    ++g.prios[prio];
    ++g.entries;
}

void TcamIndex::remove(const TableView &t, uint32_t loc)
{
    auto mask = t.mask(loc);
    auto git = groups_.find(std::string(mask.begin(), mask.end()));
    if (git == groups_.end())
        return;
    Group &g = git->second;
    auto bit = g.by_value.find(masked(t.value(loc), mask));
    if (bit == g.by_value.end())
        return;
    auto &locs = bit->second;
    auto it = std::find(locs.begin(), locs.end(), loc);
    if (it == locs.end())
        return;
    locs.erase(it);
    if (locs.empty())
        g.by_value.erase(bit);
    uint16_t top = g.max_prio();
    if (auto p = g.prios.find(t.prio[loc]); p != g.prios.end() && --p->second == 0)
        g.prios.erase(p);
    if (--g.entries == 0) {
        groups_.erase(git);
        order_stale_ = true;
    } else if (g.max_prio() != top) {
        order_stale_ = true;
    }
}

void TcamIndex::sort_groups() const
{
    order_.clear();
    for (const auto &[mask_key, g] : groups_)
        order_.emplace_back(&mask_key, &g);
    std::sort(order_.begin(), order_.end(),
              [](const auto &a, const auto &b) { return a.second->max_prio() > b.second->max_prio(); });
    order_stale_ = false;
}

std::optional<uint32_t> TcamIndex::lookup(const TableView &t, std::span<const uint8_t> search) const
{
    if (order_stale_)
        sort_groups();
    std::optional<uint32_t> best;
    auto better = [&t, &best](uint32_t loc) {
        if (!best)
            return true;
        if (t.prio[loc] != t.prio[*best])
            return t.prio[loc] > t.prio[*best];
        return loc < *best;
    };
    probe_.resize(search.size());
    for (const auto &[mask_key, g] : order_) {
        if (best && g->max_prio() < t.prio[*best])
            break;  // this group and all after it rank below the match found
        for (std::size_t i = 0; i < search.size(); ++i)
            probe_[i] = static_cast<char>(search[i] & static_cast<uint8_t>((*mask_key)[i]));
        auto bit = g->by_value.find(probe_);
        if (bit == g->by_value.end())
            continue;
        for (uint32_t loc : bit->second)
            if (better(loc))
                best = loc;
    }
    return best;
}

}  // namespace tcamwrap::sim

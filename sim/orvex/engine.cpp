// engine.cpp - placement, groom and self-check of one managed TCAM table.
#include "engine.h"

#include <algorithm>
#include <cerrno>
#include <cstdarg>
#include <cstdio>
#include <cstdlib>
#include <cstring>

namespace orvex {

namespace {

constexpr uint32_t npos = SlotMap::npos;
constexpr uint32_t kMaxTries = 16;   // validate calls per insert

int fail(int err) {
    errno = err;
    return -1;
}

}  // namespace

Table::Table(uint32_t size, uint32_t key_bytes, Port &port)
    : size_(size), key_bytes_(key_bytes), port_(port) {
    banks_[0].base = 0;
    banks_[0].size = size / 2;
    banks_[1].base = size / 2;
    banks_[1].size = size - size / 2;
    for (Bank &b : banks_) b.slots = SlotMap(b.size);
    keys_.assign(std::size_t{size} * key_bytes, 0);
    prio_.assign(size, 0);
    moved_in_groom_.assign(std::size_t{UINT16_MAX} + 1, 0);
}

// ---- start-up ---------------------------------------------------------------

int Table::reset_hardware() {
    std::vector<uint8_t> key(key_bytes_);
    for (uint32_t loc = 0; loc < size_; ++loc) {
        bool valid = false;
        uint16_t prio = 0;
        if (port_.hw_get(loc, &valid, key.data(), &prio) != 0) return -1;
        if (valid && port_.hw_clear(loc) != 0) return -1;
    }
    for (Bank &b : banks_) empty_bank(b, false);
    return 0;
}

void Table::empty_bank(Bank &b, bool rescan) {
    b.slots = SlotMap(b.size);
    b.groups.clear();
    b.dirty.clear();
    b.sliding.clear();
    b.next_plan = kFirstPlan;
    b.used = 0;
    b.rescan = rescan;
    b.last_insert = npos;
    b.trend_run = 0;
}

// The image is taken as it is. An entry below the priorities of the run
// before it starts a new group; one that is not joins that group, whose range
// then merges with the groups above it while the ranges meet, so the ranges
// stay disjoint and check() reports any disorder inside a group.
int Table::restore() {
    for (Bank &b : banks_) empty_bank(b, true);
    std::vector<std::pair<uint16_t, Group>> runs;  // key and group, by location
    std::vector<uint8_t> valid;
    std::vector<uint16_t> prios;
    for (unsigned bi = 0; bi < 2; ++bi) {
        Bank &b = banks_[bi];
        runs.clear();
        valid.resize(b.size);
        prios.resize(b.size);
        if (port_.hw_get_range(b.base, b.size, valid.data(), &keys_[std::size_t{b.base} * key_bytes_],
                               prios.data(), key_bytes_) != 0)
            return -1;
        for (uint32_t pos = 0; pos < b.size; ++pos) {
            const uint32_t loc = b.base + pos;
            const uint16_t prio = prios[pos];
            if (valid[pos] == 0) continue;
            if (runs.empty() || prio < runs.back().second.low) {
                Group g;
                g.first = pos;
                g.low = prio;
                runs.emplace_back(prio, g);
            }
            runs.back().first = std::max(runs.back().first, prio);
            runs.back().second.last = pos;
            ++runs.back().second.count;
            while (runs.size() > 1 && runs[runs.size() - 2].second.low <= runs.back().first) {
                auto &[key, upper] = runs[runs.size() - 2];
                const auto &lower = runs.back();
                key = std::max(key, lower.first);
                upper.low = std::min(upper.low, lower.second.low);
                upper.last = lower.second.last;
                upper.count += lower.second.count;
                runs.pop_back();
            }
            prio_[loc] = prio;
            b.slots.set_free(pos, false);
            ++b.used;
        }
        for (const auto &[key, g] : runs) b.groups.emplace_hint(b.groups.end(), key, g);
        while (b.next_plan <= b.used) b.next_plan *= 2;  // plans resume from here
    }
    return 0;
}

// ---- insert -------------------------------------------------------------------

Table::GroupIt Table::group_for(Bank &b, uint16_t prio) {
    auto g = b.groups.lower_bound(prio);  // the first group whose key is prio or lower
    if (g != b.groups.end() && g->first == prio) return g;
    if (g == b.groups.begin()) return b.groups.end();
    --g;  // key above prio
    return g->second.low <= prio ? g : b.groups.end();
}

bool Table::overlaps(uint32_t sloc, const uint8_t *key) const {
    const uint32_t half = key_bytes_ / 2;
    const uint8_t *other = key_at(sloc);
    for (uint32_t i = 0; i < half; ++i)
        if (((other[i] ^ key[i]) & other[half + i] & key[half + i]) != 0) return false;
    return true;
}

void Table::window(const Bank &b, const Group &g, const uint8_t *key, uint16_t prio,
                   uint32_t *lo, uint32_t *hi, uint32_t *at) const {
    *lo = g.first;
    *hi = g.last + 1;
    bool below = false;
    // Its place in priority order: the point with the most entries of higher
    // priority before it and of lower priority after it.
    int64_t score = 0;
    int64_t best = 0;
    *at = g.first;
    for (uint32_t p = g.first; p != npos; p = b.slots.next_used(p + 1, g.last + 1)) {
        const uint16_t other = prio_[b.base + p];
        score += other > prio ? 1 : other < prio ? -1 : 0;
        if (score > best) {
            best = score;
            *at = p + 1;
        }
        if (other == prio || !overlaps(b.base + p, key)) continue;
        if (other > prio) {
            *lo = p + 1;
        } else if (!below) {
            *hi = p;
            below = true;
        }
    }
    if (*hi < *lo) *hi = *lo = npos;  // no place between them
}

Table::Gap Table::gap_before(const Bank &b, GroupMap::const_iterator below) const {
    const uint32_t lo = below == b.groups.begin() ? 0 : std::prev(below)->second.last + 1;
    const uint32_t hi = below == b.groups.end() ? b.size : below->second.first;
    return {lo, hi};
}

int Table::try_candidate(const Bank &b, uint32_t pos, uint32_t *tries, bool *ok) {
    ++*tries;
    ++counters_.validate_calls;
    *ok = false;
    if (port_.validate(b.base + pos, ok) != 0) return -1;
    if (!*ok) ++counters_.validate_refusals;
    return 0;
}

// Candidates of a gap from start (next to a group's span) walking away from
// the span: toward lower locations when up, else toward higher ones.
int Table::scan_gap(const Bank &b, Gap gap, uint32_t start, bool up, uint32_t *tries,
                    uint32_t *pos) {
    for (uint32_t step = 0; step < gap.size() && *tries < kMaxTries; ++step) {
        const uint32_t p = up ? start - step : start + step;
        if (p < gap.lo || p >= gap.hi) break;
        bool ok = false;
        if (try_candidate(b, p, tries, &ok) != 0) return -1;
        if (ok) {
            *pos = p;
            return 0;
        }
    }
    return 0;
}

int Table::place_in_group(const Bank &b, GroupIt g, const uint8_t *key, uint16_t prio,
                          uint32_t *pos) {
    const Group &grp = g->second;
    uint32_t tries = 0;
    if (ranged(g) || g->first != prio) {
        // Between the overlapping entries: holes of the span first, then the
        // gaps beside it where no overlapping entry stands in the way.
        uint32_t lo = 0;
        uint32_t hi = 0;
        uint32_t at = 0;
        window(b, grp, key, prio, &lo, &hi, &at);
        if (lo == npos) return 0;
        // Holes nearest to its place in priority order first.
        at = std::clamp(at, lo, hi);
        uint32_t down = b.slots.next_free(at, hi);
        uint32_t up = b.slots.prev_free(at, lo);
        while ((down != npos || up != npos) && tries < kMaxTries) {
            const bool take_down = up == npos || (down != npos && down - at <= at - up);
            const uint32_t p = take_down ? down : up;
            bool ok = false;
            if (try_candidate(b, p, &tries, &ok) != 0) return -1;
            if (ok) {
                *pos = p;
                return 0;
            }
            if (take_down)
                down = b.slots.next_free(p + 1, hi);
            else
                up = b.slots.prev_free(p, lo);
        }
        const Gap above = gap_before(b, g);
        const Gap below = gap_before(b, std::next(g));
        if (lo == grp.first && above.size() > 0 &&
            scan_gap(b, above, above.hi - 1, true, &tries, pos) != 0)
            return -1;
        if (*pos == npos && hi == grp.last + 1 && below.size() > 0 &&
            scan_gap(b, below, below.lo, false, &tries, pos) != 0)
            return -1;
        return 0;
    }
    // Holes first: they cost no gap. A sliding group fills the holes of its
    // destination first, which the slide would otherwise have to move again.
    const uint32_t from = grp.slide > 0 ? std::max(grp.first, grp.slide_to) : grp.first;
    for (int pass = 0; pass < 2; ++pass) {
        const uint32_t lo = pass == 0 ? from : grp.first;
        const uint32_t hi = pass == 0 ? grp.last + 1 : from;
        for (uint32_t p = b.slots.next_free(lo, hi); p != npos && tries < kMaxTries;
             p = b.slots.next_free(p + 1, hi)) {
            bool ok = false;
            if (try_candidate(b, p, &tries, &ok) != 0) return -1;
            if (ok) {
                *pos = p;
                return 0;
            }
        }
    }
    // Then the gaps beside the span, nearest the span first: the side a slide
    // heads for, else the larger.
    const Gap above = gap_before(b, g);
    const Gap below = gap_before(b, std::next(g));
    const bool above_first = grp.slide != 0 ? grp.slide < 0 : above.size() >= below.size();
    for (int side = 0; side < 2 && *pos == npos; ++side) {
        const bool up = (side == 0) == above_first;
        const Gap gap = up ? above : below;
        if (gap.size() == 0) continue;
        if (scan_gap(b, gap, up ? gap.hi - 1 : gap.lo, up, &tries, pos) != 0) return -1;
    }
    return 0;
}

// The share of free space a gap deserves: half the entries of each group
// beside it (they grow into it), plus the priorities still missing between the
// two (new groups will come there), plus one. `end` stands for no group on
// that side; `prio`, when given, is a new group's priority on that side.
uint64_t Table::gap_weight(const Bank &b, GroupMap::const_iterator above,
                           GroupMap::const_iterator below, int32_t prio) {
    uint64_t w = 1;
    int32_t hi = -1;
    int32_t lo = -1;
    if (above != b.groups.end()) {
        w += above->second.count / 2;
        hi = above->first;
    } else if (prio >= 0) {
        hi = prio;
    }
    if (below != b.groups.end()) {
        w += below->second.count / 2;
        lo = below->first;
    } else if (prio >= 0) {
        lo = prio;
    }
    if (hi >= 0 && lo >= 0 && hi > lo + 1) w += static_cast<uint64_t>(hi - lo - 1);
    return w;
}

// A priority new to the bank goes into the gap between its neighbours, at the
// point that splits the gap in proportion to the two new gaps' weights.
int Table::place_new_group(const Bank &b, uint16_t prio, uint32_t *pos) {
    const auto below = b.groups.lower_bound(prio);
    const Gap gap = gap_before(b, below);
    if (gap.size() == 0) return 0;
    const auto above = below == b.groups.begin() ? b.groups.end() : std::prev(below);
    const uint64_t w_above = gap_weight(b, above, b.groups.end(), prio);
    const uint64_t w_below = gap_weight(b, b.groups.end(), below, prio);
    uint32_t split = gap.lo + static_cast<uint32_t>(gap.size() * w_above / (w_above + w_below));
    // A new top (bottom) priority right after another one sits kTrendGap from
    // the edge group when the gap is wide: a load in priority order keeps going
    // that way (in a narrow gap the weights keep room for what comes between).
    if (gap.size() >= kWideGap && above == b.groups.end() && below != b.groups.end() && b.trend_run > 1)
        split = gap.hi - 1 - kTrendGap;
    if (gap.size() >= kWideGap && below == b.groups.end() && above != b.groups.end() && b.trend_run < -1)
        split = gap.lo + kTrendGap;
    const uint32_t start = std::min(split, gap.hi - 1);
    uint32_t tries = 0;
    for (uint32_t step = 0; step < 2 * gap.size() && tries < kMaxTries; ++step) {
        // start, start+1, start-1, start+2, ... inside the gap
        const uint32_t off = (step + 1) / 2;
        const bool down = step % 2 == 1;
        if (!down && start < gap.lo + off) continue;
        if (down && start + off >= gap.hi) continue;
        const uint32_t p = down ? start + off : start - off;
        bool ok = false;
        if (try_candidate(b, p, &tries, &ok) != 0) return -1;
        if (ok) {
            *pos = p;
            return 0;
        }
    }
    return 0;
}

// A priority no group of the bank covers. In a load in priority order
// (kTrendRun new top or bottom priorities in a row) it joins the edge group
// while that is small: groups of kMaxRange rather than one group and gap per
// priority. Else a group of its own; with no room there, in a bank short of
// free places for its gaps, it joins a neighbour.
int Table::place_new_priority(Bank &b, const uint8_t *key, uint16_t prio, GroupIt *g,
                              uint32_t *pos) {
    const auto below = b.groups.lower_bound(prio);
    const auto above = below == b.groups.begin() ? b.groups.end() : std::prev(below);
    const int side = b.groups.empty()          ? 0
                     : above == b.groups.end() ? 1
                     : below == b.groups.end() ? -1
                                               : 0;
    const bool same_way = b.trend_run == 0 || (b.trend_run > 0) == (side > 0);
    b.trend_run = side != 0 && same_way ? b.trend_run + side : side;
    const GroupIt edge = side > 0 ? below : above;
    int rc = 0;
    if (side != 0 && std::abs(b.trend_run) >= kTrendRun && edge->second.count < kMaxRange) {
        rc = place_in_group(b, edge, key, prio, pos);
        if (*pos != npos) *g = edge;
    }
    if (rc == 0 && *pos == npos) rc = place_new_group(b, prio, pos);
    for (GroupIt n : {above, below}) {
        if (rc != 0 || *pos != npos || n == b.groups.end() || !too_many_gaps(b)) continue;
        rc = place_in_group(b, n, key, prio, pos);
        if (*pos != npos) *g = n;
    }
    return rc;
}

int Table::insert(const uint8_t *key, uint16_t prio, unsigned bank_no, uint32_t *sloc) {
    if (bank_no > 1) return fail(EINVAL);
    Bank &b = bank(bank_no);
    uint32_t pos = npos;
    int rc = 0;
    GroupIt g = group_for(b, prio);
    if (b.used < b.size && g != b.groups.end()) {
        b.trend_run = 0;  // a priority the bank has: no load in priority order
        rc = place_in_group(b, g, key, prio, &pos);
    } else if (b.used < b.size) {
        rc = place_new_priority(b, key, prio, &g, &pos);
    }
    if (rc == 0 && pos == npos) rc = fail(ENOSPC);
    if (rc == 0) rc = write_entry(b, pos, key, prio, g);
    if (rc != 0) {
        ++counters_.insert_failures;
        return -1;
    }
    ++counters_.inserts;
    *sloc = b.base + pos;
    return 0;
}

int Table::write_entry(Bank &b, uint32_t pos, const uint8_t *key, uint16_t prio, GroupIt g) {
    const uint32_t sloc = b.base + pos;
    // A refused PRE_ADD or a failed write leaves nothing behind: no entry, no
    // place taken, no group changed.
    if (port_.camindex(kPreAdd, 0, sloc) != 0) return -1;
    if (port_.hw_write(sloc, key, prio) != 0) return -1;
    std::memcpy(&keys_[std::size_t{sloc} * key_bytes_], key, key_bytes_);
    prio_[sloc] = prio;
    b.slots.set_free(pos, false);
    ++b.used;
    if (g == b.groups.end()) {
        g = b.groups.try_emplace(prio, Group{pos, pos, 0}).first;
        g->second.low = prio;
    } else if (prio > g->first) {  // joins the group below as its new top
        if (b.sliding.erase(g->first) > 0) b.sliding.insert(prio);
        auto node = b.groups.extract(g);
        node.key() = prio;
        g = b.groups.insert(std::move(node)).position;
    }
    Group &grp = g->second;
    grp.low = std::min(grp.low, prio);
    grp.first = std::min(grp.first, pos);
    grp.last = std::max(grp.last, pos);
    ++grp.count;
    mark_dirty(b, g->first);
    b.last_insert = pos;
    // The entry is live: a failing POST_ADD cannot undo that, so it is not looked at.
    port_.camindex(kPostAdd, 0, sloc);
    return 0;
}

void Table::mark_dirty(Bank &b, uint16_t group) {
    if (std::find(b.dirty.begin(), b.dirty.end(), group) == b.dirty.end()) b.dirty.push_back(group);
}

// ---- delete and read ------------------------------------------------------------

int Table::remove(uint32_t sloc) {
    if (sloc >= size_) return fail(EINVAL);
    if (!holds(sloc)) return fail(ENOENT);
    if (port_.camindex(kPreDel, sloc, 0) != 0) return -1;
    if (port_.hw_clear(sloc) != 0) return -1;
    forget_entry(bank(bank_of(sloc)), local(sloc));
    ++counters_.deletes;
    port_.camindex(kPostDel, sloc, 0);  // the entry is gone either way
    return 0;
}

void Table::forget_entry(Bank &b, uint32_t pos) {
    b.slots.set_free(pos, true);
    --b.used;
    const auto g = group_for(b, prio_[b.base + pos]);
    if (g == b.groups.end()) return;  // cannot happen: every used location has its group
    Group &grp = g->second;
    if (--grp.count == 0) {
        b.groups.erase(g);
        return;
    }
    if (pos == grp.first) grp.first = b.slots.next_used(pos + 1, grp.last + 1);
    if (pos == grp.last) grp.last = b.slots.prev_used(pos, grp.first);
}

int Table::read(uint32_t sloc, uint8_t *key, uint16_t *prio) const {
    if (sloc >= size_) return fail(EINVAL);
    if (!holds(sloc)) return fail(ENOENT);
    std::memcpy(key, key_at(sloc), key_bytes_);
    *prio = prio_[sloc];
    return 0;
}

int Table::repair(uint32_t sloc) {
    if (!holds(sloc)) return fail(ENOENT);
    return port_.hw_write(sloc, key_at(sloc), prio_[sloc]);
}

void Table::for_each_entry(const std::function<void(uint32_t)> &fn) const {
    for (const Bank &b : banks_)
        for (uint32_t p = b.slots.next_used(0, b.size); p != npos; p = b.slots.next_used(p + 1, b.size))
            fn(b.base + p);
}

BankStats Table::stats(unsigned bank_no) const {
    BankStats s;
    if (bank_no > 1) return s;
    const Bank &b = banks_[bank_no];
    s.entries = b.used;
    s.groups = static_cast<uint32_t>(b.groups.size());
    s.total_segs = b.slots.words();
    for (uint32_t w = 0; w < s.total_segs; ++w) {
        const uint32_t capacity = std::min(kSegment, b.size - w * kSegment);
        const uint32_t used = b.slots.used_in_word(w);
        if (used == 0)
            ++s.free_segs;
        else if (used == capacity)
            ++s.full_segs;
        else
            ++s.open_segs;
    }
    return s;
}

// ---- groom ----------------------------------------------------------------------

int Table::move(Bank &b, uint32_t from, uint32_t to) {
    const uint32_t old_sloc = b.base + from;
    const uint32_t new_sloc = b.base + to;
    if (port_.camindex(kPreMove, old_sloc, new_sloc) != 0) return -1;
    if (port_.hw_write(new_sloc, key_at(old_sloc), prio_[old_sloc]) != 0) return -1;
    std::memcpy(&keys_[std::size_t{new_sloc} * key_bytes_], key_at(old_sloc), key_bytes_);
    prio_[new_sloc] = prio_[old_sloc];
    b.slots.set_free(to, false);
    b.slots.set_free(from, true);
    ++counters_.moves;
    // The client persists a move at POST_MOVE, so the old copy stays in the
    // hardware until then: a client that dies anywhere in the move leaves an
    // owned copy (the other one is unowned and reconciled away at its restart).
    // Cleared first, a death before POST_MOVE would leave the map pointing at
    // an empty place and the copy owned by nobody: the entry would be lost.
    port_.camindex(kPostMove, old_sloc, new_sloc);  // the move is done either way
    return port_.hw_clear(old_sloc);
}

// Move an entry of group g from `from` to `to` and keep the span right.
int Table::move_in_group(Bank &b, Group &g, uint32_t from, uint32_t to) {
    const int rc = move(b, from, to);
    if (b.slots.is_free(to)) return rc;  // nothing moved
    g.first = std::min(g.first, to);
    g.last = std::max(g.last, to);
    if (from == g.first) g.first = b.slots.next_used(from + 1, g.last + 1);
    if (from == g.last) g.last = b.slots.prev_used(from, g.first);
    return rc;
}

// May the entry at `from` jump to the free place `to` of its group? Not over
// an overlapping entry it must stay before (after), nor beside a partner the
// pair rule forbids.
bool Table::may_jump(const Bank &b, uint32_t from, uint32_t to) const {
    const uint32_t partner = (b.base + to) ^ 1u;
    if (partner != b.base + from && partner < size_ && holds(partner) &&
        !port_.may_pair(b.base + from, partner))
        return false;
    const uint16_t prio = prio_[b.base + from];
    const uint8_t *key = key_at(b.base + from);
    const bool down = to > from;
    const uint32_t lo = down ? from + 1 : to + 1;
    const uint32_t hi = down ? to : from;
    for (uint32_t p = b.slots.next_used(lo, hi); p != npos; p = b.slots.next_used(p + 1, hi)) {
        const uint16_t other = prio_[b.base + p];
        if ((down ? other < prio : other > prio) && overlaps(b.base + p, key)) return false;
    }
    return true;
}

// Walk the free place `free_at` of ranged group g (a hole, or a place of a
// gap beside it) to `target`: each step moves the entry farthest toward the
// target, at most kMaxHop away, that may jump to the free place, so it walks
// in long jumps; a step costs at most kMaxHop^2 key comparisons. The entry
// next to the free place may always move, so the walk ends after at most as
// many moves as entries in between, or when the groom's budget is spent.
// 1 when the pair rule or the budget stops it.
int Table::walk_free(Bank &b, Group &g, uint32_t free_at, uint32_t target) {
    while (free_at != target && !b.slots.is_free(target)) {
        if (counters_.moves >= budget_end_) return 1;
        uint32_t from = npos;
        if (free_at > target) {
            const uint32_t start = std::max(target, free_at > kMaxHop ? free_at - kMaxHop : 0);
            for (uint32_t p = start; p != npos && from == npos; p = b.slots.next_used(p + 1, free_at))
                if (!b.slots.is_free(p) && may_jump(b, p, free_at)) from = p;
        } else {
            const uint32_t start = std::min(target, free_at + kMaxHop);
            for (uint32_t p = start; p != npos && from == npos;
                 p = p > free_at + 1 ? b.slots.prev_used(p, free_at + 1) : npos)
                if (!b.slots.is_free(p) && may_jump(b, p, free_at)) from = p;
        }
        if (from == npos) return 1;
        if (move_in_group(b, g, from, free_at) != 0) return -1;
        free_at = from;
    }
    return 0;
}

// The share of the bank's spare space (beyond kMinGap per gap) the holes of
// a ranged group should hold: in proportion to its entries.
uint64_t Table::hole_share(const Bank &b, const Group &g) {
    const uint64_t reserve = uint64_t{b.groups.size() + 1} * kMinGap;
    const uint64_t spare = b.size - b.used > reserve ? b.size - b.used - reserve : 0;
    return b.used == 0 ? 0 : spare * g.count / b.used;
}

// May a refill take a hole of g? A ranged group keeps its share.
bool Table::spare_holes(const Bank &b, GroupMap::const_iterator g) {
    return g->second.holes() > (ranged(g) ? hole_share(b, g->second) : 0);
}

// After an insert into a ranged group at pos: while the group holds fewer
// holes than its share of the free space, one place of the gap nearer to pos
// walks next to pos, so the holes stay spread where the inserts go.
int Table::top_up_holes(Bank &b, GroupIt g, uint32_t pos) {
    Group &grp = g->second;
    if (!ranged(g) || pos <= grp.first || pos >= grp.last || grp.holes() >= hole_share(b, grp))
        return 0;
    const Gap above = gap_before(b, g);
    const Gap below = gap_before(b, std::next(g));
    const bool up = below.size() == 0 || (above.size() > 0 && pos - grp.first < grp.last - pos);
    if ((up ? above : below).size() == 0) return 0;
    note_move(g->first);
    const uint32_t target = std::clamp(up ? pos + 1 : pos - 1, grp.first, grp.last);
    return walk_free(b, grp, up ? above.hi - 1 : below.lo, target);
}

// Shift group g one step toward higher locations (down) or lower ones (up):
// its edge entry goes to the nearest free location on the other side, a hole
// of the span or the gap beyond it.
// 1 when no free place in reach may take the entry (the pair rule).
int Table::shift(Bank &b, GroupIt g, bool down) {
    Group &grp = g->second;
    uint32_t to = npos;
    if (down) {
        const auto next = std::next(g);
        to = pick_place(b, grp.first, grp.first + 1,
                        next == b.groups.end() ? b.size : next->second.first, true);
    } else {
        const uint32_t floor = g == b.groups.begin() ? 0 : std::prev(g)->second.last + 1;
        to = pick_place(b, grp.last, floor, grp.last, false);
    }
    if (to == npos) return 1;
    if (ranged(g)) return walk_free(b, grp, to, down ? grp.first : grp.last);
    return move_in_group(b, grp, down ? grp.first : grp.last, to);
}

// The free place in [lo, hi) nearest to lo (ascending) or to hi that the entry
// at `from` may take: its pair partner (the other location of 2i, 2i+1) is
// free, or is `from` itself, or holds an entry the port lets it sit beside.
uint32_t Table::pick_place(const Bank &b, uint32_t from, uint32_t lo, uint32_t hi,
                           bool ascending) {
    uint32_t to = ascending ? b.slots.next_free(lo, hi) : b.slots.prev_free(hi, lo);
    for (uint32_t tries = 0; to != npos && tries < kMaxTries; ++tries) {
        const uint32_t partner = (b.base + to) ^ 1u;
        if (partner == b.base + from || partner >= size_ || !holds(partner) ||
            port_.may_pair(b.base + from, partner))
            return to;
        to = ascending ? b.slots.next_free(to + 1, hi) : b.slots.prev_free(to, lo);
    }
    return npos;
}

bool Table::moved_now(uint16_t key) const { return moved_in_groom_[key] == groom_epoch_; }

void Table::note_move(uint16_t key) {
    if (moved_now(key))
        ++counters_.repeat_group_moves;
    else
        moved_in_groom_[key] = groom_epoch_;
}

// One free location more for the gap above group `below` (groups.end(): the
// last gap), taken from the nearest spare space: a group with holes, or a gap
// with more than it must keep. Every group in between shifts by one, which
// moves one entry per group crossed. kHard: the gap is empty, so a gap of two
// gives one and a group already moved in this groom may move again (the next
// insert may need this gap). kReserve: a source keeps kMinGap and no group
// moves twice.
int Table::refill_gap(Bank &b, GroupIt below, Refill mode) {
    const uint32_t keep = mode == Refill::kHard ? 1 : kMinGap;
    const auto spare = [&](GroupIt gap_below) { return gap_before(b, gap_below).size() > keep; };
    // With fewer free locations than gaps some gap stays empty whatever groom
    // does: then a far source only moves the shortage, so the walk is bounded.
    const bool tight = b.size - b.used <= b.groups.size() + 1;
    const uint32_t walk = tight ? kTightWalk : npos;
    const auto may_cross = [&](GroupIt g) {
        return mode == Refill::kHard || !moved_now(g->first);
    };

    // Downward: groups below..source shift toward higher locations.
    uint32_t down_cost = npos;
    GroupIt down_src = b.groups.end();
    uint32_t crossed = 0;
    for (auto g = below; g != b.groups.end() && down_cost == npos; ++g) {
        if (++crossed > walk || !may_cross(g)) break;
        if (spare_holes(b, g) || spare(std::next(g))) {
            down_cost = crossed;
            down_src = g;
        }
    }
    // Upward: groups above the gap shift toward lower locations; only worth a
    // look while it is cheaper than the way down.
    uint32_t up_cost = npos;
    GroupIt up_src = b.groups.end();
    crossed = 0;
    for (auto g = below; g != b.groups.begin() && up_cost == npos;) {
        --g;
        if (++crossed >= down_cost || crossed > walk || !may_cross(g)) break;
        if (spare_holes(b, g) || spare(g)) {
            up_cost = crossed;
            up_src = g;
        }
    }
    if (down_cost == npos && up_cost == npos) return 0;  // no spare space reachable

    const bool down = down_cost <= up_cost;
    GroupIt g = down ? down_src : up_src;
    for (;;) {
        if (ranged(g) && counters_.moves >= budget_end_) break;
        const int rc = shift(b, g, down);
        if (rc < 0) return -1;
        if (rc > 0) break;  // the free place stays in the gap reached so far
        note_move(g->first);
        if (down) {
            if (g == below) break;
            --g;
        } else {
            ++g;
            if (g == below) break;
        }
    }
    return 0;
}

// Where every group of the bank would start if the free space between the
// spans were shared out among the gaps by gap_weight(). A group far from that
// place, and small enough for the trip to be cheap, starts a slide there.
void Table::plan_slides(Bank &b) {
    const std::size_t n = b.groups.size();
    std::vector<GroupIt> order;
    order.reserve(n);
    uint64_t spans = 0;
    for (auto g = b.groups.begin(); g != b.groups.end(); ++g) {
        order.push_back(g);
        spans += g->second.last - g->second.first + 1;
    }
    const int32_t trend_run = std::abs(b.trend_run) >= kTrendRun ? b.trend_run : 0;
    // In a load in order every gap keeps kMinGap and the edge it grows to
    // gets the rest; else the free space is shared by weight.
    const uint64_t reserve = trend_run != 0 ? uint64_t{kMinGap} * (n + 1) : 0;
    const uint64_t free_in_gaps = b.size - spans > reserve ? b.size - spans - reserve : 0;
    const auto weight = [&](std::size_t gap) -> uint64_t {  // gap i lies above order[i]
        if (trend_run != 0) return (trend_run > 0 ? gap == 0 : gap == n) ? 1 : 0;
        return gap_weight(b, gap > 0 ? order[gap - 1] : b.groups.end(),
                          gap < n ? order[gap] : b.groups.end(), -1);
    };
    uint64_t total = 0;
    for (std::size_t i = 0; i <= n; ++i) total += weight(i);

    const bool trend = trend_run != 0;
    uint64_t weight_before = 0;
    uint64_t spans_before = 0;
    for (std::size_t k = 0; k < n; ++k) {
        weight_before += weight(k);
        Group &grp = order[k]->second;
        const int64_t span = grp.last - grp.first + 1;
        const int64_t want = static_cast<int64_t>(free_in_gaps * weight_before / total + spans_before +
                                                  (reserve > 0 ? uint64_t{kMinGap} * (k + 1) : 0));
        spans_before += span;
        const int64_t by = want - grp.first;
        const int64_t dist = by > 0 ? by : -by;
        // A slide moves each entry once: worth it when it frees at least two
        // locations per move, and when the group is off by more than the gaps
        // beside it are worth (the layout drifts a little with every insert).
        const int64_t gaps_beside =
            static_cast<int64_t>(free_in_gaps * (weight(k) + weight(k + 1)) / total);
        // In a load in priority order the free space must reach its edge.
        const int64_t worth = trend ? static_cast<int64_t>(grp.count) / 4 : 2 * static_cast<int64_t>(grp.count);
        if (dist < worth || dist < (trend ? int64_t{kMinGap} : kMinSlide) ||
            dist * 100 < gaps_beside * kSlideSlack)
            continue;
        grp.slide = by > 0 ? 1 : -1;
        grp.slide_to = static_cast<uint32_t>(by > 0 ? want : want + span - 1);
        grp.stalls = 0;
        b.sliding.insert(order[k]->first);
    }
}

// One move of a sliding group: its edge entry jumps to the nearest free place
// of its destination (keeping kMinGap before the next group), so the group
// arrives after one move per entry. While the neighbour in the way has not
// moved on yet the slide waits; it ends when the group is there, or after
// kMaxStalls grooms without room.
int Table::slide_step(Bank &b, GroupIt g) {
    Group &grp = g->second;
    if (ranged(g)) return slide_ranged(b, g);
    uint32_t to = npos;
    if (grp.slide > 0) {
        if (grp.first >= grp.slide_to) return end_slide(grp);
        const auto next = std::next(g);
        const uint32_t limit = next == b.groups.end() ? b.size : next->second.first;
        if (limit >= kMinGap) to = pick_place(b, grp.first, grp.slide_to, limit - kMinGap, true);
    } else {
        if (grp.last <= grp.slide_to) return end_slide(grp);
        const uint32_t floor = (g == b.groups.begin() ? 0 : std::prev(g)->second.last + 1) + kMinGap;
        to = pick_place(b, grp.last, floor, grp.slide_to + 1, false);
    }
    if (to == npos) return ++grp.stalls > kMaxStalls ? end_slide(grp) : 0;
    grp.stalls = 0;
    note_move(g->first);
    return move_in_group(b, grp, grp.slide > 0 ? grp.first : grp.last, to);
}

// A ranged group slides keeping its order: the entry nearest below (above)
// the farthest free place of its destination jumps there, over free places
// only, so the group packs toward its destination (or against the next group,
// when that is nearer) after at most one move per entry. Up to
// kRangedSlideMoves per groom, so it arrives while the inserts go on.
int Table::slide_ranged(Bank &b, GroupIt g) {
    Group &grp = g->second;
    const auto next = std::next(g);
    const uint32_t limit = next == b.groups.end() ? b.size : next->second.first;
    const uint32_t floor = g == b.groups.begin() ? 0 : std::prev(g)->second.last + 1;
    const uint32_t span = grp.last - grp.first;
    note_move(g->first);
    for (uint32_t n = 0; n < kRangedSlideMoves; ++n) {
        uint32_t from = npos;
        uint32_t to = npos;
        if (grp.slide > 0) {
            const uint32_t end = std::min(grp.slide_to + span, limit > kMinGap ? limit - kMinGap - 1 : 0);
            to = end >= grp.first ? b.slots.prev_free(end + 1, grp.first) : npos;
            from = to == npos ? npos : b.slots.prev_used(to, grp.first);
        } else {
            const uint32_t start = std::max(grp.slide_to >= span ? grp.slide_to - span : 0, floor + kMinGap);
            to = start <= grp.last ? b.slots.next_free(start, grp.last + 1) : npos;
            from = to == npos ? npos : b.slots.next_used(to + 1, grp.last + 1);
        }
        if (from == npos) return end_slide(grp);  // packed: nothing left behind a free place
        if (!may_jump(b, from, to)) return ++grp.stalls > kMaxStalls ? end_slide(grp) : 0;
        grp.stalls = 0;
        if (move_in_group(b, grp, from, to) != 0) return -1;
    }
    return 0;
}

int Table::end_slide(Group &grp) {
    grp.slide = 0;
    return 0;
}

// Slides toward higher locations make room for the groups above them, so they
// run from the bottom of the bank up; slides toward lower ones from the top
// down. At most kMaxSlideMoves per groom.
int Table::run_slides(Bank &b) {
    const uint64_t start = counters_.moves;
    for (int dir : {1, -1}) {
        const auto step = [&](uint16_t key) {
            const auto g = b.groups.find(key);
            if (g == b.groups.end() || g->second.slide != dir || moved_now(key) ||
                counters_.moves - start >= kMaxSlideMoves)
                return 0;
            return slide_step(b, g);
        };
        int rc = 0;
        if (dir > 0)
            for (auto it = b.sliding.rbegin(); rc == 0 && it != b.sliding.rend(); ++it) rc = step(*it);
        else
            for (auto it = b.sliding.begin(); rc == 0 && it != b.sliding.end(); ++it) rc = step(*it);
        if (rc != 0) return rc;
    }
    std::erase_if(b.sliding, [&](uint16_t key) {
        const auto g = b.groups.find(key);
        return g == b.groups.end() || g->second.slide == 0;
    });
    return 0;
}

bool Table::too_many_gaps(const Bank &b) const {
    return (b.groups.size() + 1) * kGapShare > b.size - b.used;
}

// Both groups stay where they are: the upper one's span reaches over the gap
// between them, which becomes holes, and its range down to the lower one's.
void Table::absorb(Bank &b, GroupIt upper, GroupIt lower) {
    Group &u = upper->second;
    u.low = lower->second.low;
    u.last = lower->second.last;
    u.count += lower->second.count;
    u.slide = 0;
    b.sliding.erase(lower->first);
    b.groups.erase(lower);
}

Table::GroupIt Table::merge_small(Bank &b, GroupIt g) {
    const auto fits = [&](GroupIt n) {
        return n != b.groups.end() && n->second.count + g->second.count <= kMaxRange;
    };
    const GroupIt up = g == b.groups.begin() ? b.groups.end() : std::prev(g);
    const GroupIt down = std::next(g);
    const bool to_up = fits(up) && (!fits(down) || up->second.count <= down->second.count);
    if (to_up) {
        absorb(b, up, g);
        return up;
    }
    if (fits(down)) absorb(b, g, down);
    return g;
}

int Table::groom(unsigned bank_no, uint32_t *moves_out) {
    if (bank_no > 1) return fail(EINVAL);
    Bank &b = bank(bank_no);
    ++counters_.grooms;
    const uint64_t moves_before = counters_.moves;
    budget_end_ = moves_before + kGroomBudget;
    if (++groom_epoch_ == 0) {  // wrapped: forget every old mark
        std::fill(moved_in_groom_.begin(), moved_in_groom_.end(), 0);
        groom_epoch_ = 1;
    }
    int rc = 0;
    // Fewer gaps first, where the bank has too many for its free space: the
    // groups that changed (after a restore, all) merge into small neighbours.
    if (b.rescan) {
        for (auto g = b.groups.begin(); g != b.groups.end() && too_many_gaps(b); ++g)
            g = merge_small(b, g);
    }
    for (std::size_t i = 0; i < b.dirty.size() && too_many_gaps(b); ++i) {
        const auto g = b.groups.find(b.dirty[i]);
        if (g == b.groups.end()) continue;
        const uint32_t count = g->second.count;
        const auto merged = merge_small(b, g);
        if (merged != g || merged->second.count != count) mark_dirty(b, merged->first);
    }
    if (b.last_insert != npos) {
        const auto g = group_for(b, prio_[b.base + b.last_insert]);
        if (g != b.groups.end() && !b.slots.is_free(b.last_insert))
            rc = top_up_holes(b, g, b.last_insert) < 0 ? -1 : 0;
        b.last_insert = npos;
    }
    // The gaps to look at, named by the group below each (end(): the last gap).
    std::vector<GroupIt> gaps;
    const auto add_gap = [&](GroupIt below) {
        if (std::find(gaps.begin(), gaps.end(), below) == gaps.end()) gaps.push_back(below);
    };
    if (b.rescan) {
        for (auto g = b.groups.begin(); g != b.groups.end(); ++g) add_gap(g);
        add_gap(b.groups.end());
        b.rescan = false;
    } else {
        for (uint16_t key : b.dirty) {
            const auto g = b.groups.find(key);
            if (g == b.groups.end()) continue;  // deleted since: its gaps merged
            add_gap(g);
            add_gap(std::next(g));
        }
    }
    b.dirty.clear();
    if (b.groups.empty()) gaps.clear();

    // Moves never add or remove a group, so the iterators stay valid. First
    // what the next insert needs (no empty gap), then the slides toward a
    // planned layout, then a reserve of kMinGap in the gaps looked at.

    for (GroupIt below : gaps)
        if (rc == 0 && gap_before(b, below).size() == 0)
            rc = refill_gap(b, below, Refill::kHard);
    // A load in priority order goes on planning, every 1/kTrendPlans of the
    // bank: its edge needs the room, and only what it added moves.
    const bool trend = std::abs(b.trend_run) >= kTrendRun;
    if (rc == 0 && b.used >= b.next_plan && (b.next_plan <= b.size / kPlanUntil || trend)) {
        plan_slides(b);
        b.next_plan = trend ? std::min(b.next_plan * 2, b.used + b.size / kTrendPlans)
                            : b.next_plan * 2;
    }
    if (rc == 0) rc = run_slides(b);
    for (GroupIt below : gaps)
        if (rc == 0 && gap_before(b, below).size() < kMinGap)
            rc = refill_gap(b, below, Refill::kReserve);

    const uint64_t moves = counters_.moves - moves_before;
    counters_.max_groom_moves = std::max(counters_.max_groom_moves, moves);
    if (moves_out != nullptr) *moves_out = static_cast<uint32_t>(moves);
    return rc;
}

// ---- self-check -----------------------------------------------------------------

namespace {
__attribute__((format(printf, 2, 3))) bool why_not(std::string &why, const char *fmt, ...) {
    char buf[200];
    va_list args;
    va_start(args, fmt);
    std::vsnprintf(buf, sizeof buf, fmt, args);
    va_end(args);
    why = buf;
    return false;
}
}  // namespace

bool Table::check_bank(unsigned bi, std::string &why) const {
    const Bank &b = banks_[bi];
    uint32_t counted = 0;
    bool have_prev = false;
    uint32_t prev_last = 0;
    uint16_t prev_low = 0;
    for (const auto &[key, grp] : b.groups) {
        if (grp.count == 0 || grp.first > grp.last || grp.last >= b.size)
            return why_not(why, "bank %u group %u: bad span %u..%u count %u", bi, key, grp.first,
                           grp.last, grp.count);
        if (have_prev && grp.first <= prev_last)
            return why_not(why, "bank %u group %u starts at %u inside the group above (ends %u)",
                           bi, key, grp.first, prev_last);
        if (have_prev && key >= prev_low)
            return why_not(why, "bank %u group %u: priorities meet the group above (down to %u)",
                           bi, key, prev_low);
        uint32_t n = 0;
        for (uint32_t p = b.slots.next_used(grp.first, grp.last + 1); p != npos;
             p = b.slots.next_used(p + 1, grp.last + 1)) {
            const uint32_t loc = b.base + p;
            if (prio_[loc] > key || prio_[loc] < grp.low)
                return why_not(why, "location %u priority %u outside group %u (%u..%u)", loc,
                               prio_[loc], key, grp.low, key);
            // Inside a ranged group: no overlapping entry of higher priority below it.
            for (uint32_t q = p; grp.low != key && q != npos;
                 q = b.slots.next_used(q + 1, grp.last + 1))
                if (prio_[b.base + q] > prio_[loc] && overlaps(b.base + q, key_at(loc)))
                    return why_not(why, "location %u priority %u out of order in group %u", loc,
                                   prio_[loc], key);
            ++n;
        }
        if (n != grp.count || b.slots.is_free(grp.first) || b.slots.is_free(grp.last))
            return why_not(why, "bank %u group %u: %u entries in span %u..%u, count %u", bi, key,
                           n, grp.first, grp.last, grp.count);
        counted += n;
        have_prev = true;
        prev_last = grp.last;
        prev_low = grp.low;
    }
    uint32_t used_bits = 0;
    for (uint32_t w = 0; w < b.slots.words(); ++w) used_bits += b.slots.used_in_word(w);
    if (counted != b.used || used_bits != b.used)
        return why_not(why, "bank %u: %u entries counted, %u recorded, %u locations used", bi,
                       counted, b.used, used_bits);
    return true;
}

bool Table::check(std::string &why) const {
    for (unsigned bi = 0; bi < 2; ++bi)
        if (!check_bank(bi, why)) return false;
    std::vector<uint8_t> key(key_bytes_);
    for (uint32_t loc = 0; loc < size_; ++loc) {
        bool valid = false;
        uint16_t prio = 0;
        if (port_.hw_get(loc, &valid, key.data(), &prio) != 0)
            return why_not(why, "hardware location %u cannot be read (errno %d)", loc, errno);
        if (valid != holds(loc))
            return why_not(why, "location %u: hardware %s, engine %s", loc,
                           valid ? "valid" : "empty", holds(loc) ? "holds an entry" : "empty");
        if (valid && (prio != prio_[loc] || std::memcmp(key.data(), key_at(loc), key_bytes_) != 0))
            return why_not(why, "location %u: hardware key or priority differs from the copy",
                           loc);
    }
    return true;
}

// ---- key words -------------------------------------------------------------------

uint32_t key_half_words(const uint8_t *half, uint32_t half_bytes, uint32_t *words,
                        uint32_t max_words) {
    const uint32_t n = std::min((half_bytes + 3) / 4, max_words);
    for (uint32_t w = 0; w < n; ++w) {
        uint32_t v = 0;
        // word w holds bytes [half_bytes - 4(w+1), half_bytes - 4w), big-endian
        const uint32_t end = half_bytes - 4 * w;
        const uint32_t begin = end >= 4 ? end - 4 : 0;
        for (uint32_t i = begin; i < end; ++i) v = (v << 8) | half[i];
        words[w] = v;
    }
    return n;
}

}  // namespace orvex

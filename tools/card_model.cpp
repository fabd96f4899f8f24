// card_model.cpp - the card model and the whole-card verification (see
// card_model.hpp).
#include "card_model.hpp"

#include <algorithm>
#include <map>
#include <tuple>
#include <unordered_map>

#include "audit.hpp"
#include "sim_hw.h"

namespace tcamwrap::cli
{

uint32_t key_bytes(uint32_t tbl)
{
    return tbl == TCAMWRAP_TBL_FIB ? TCAMWRAP_FIB_KEY_BYTES : TCAMWRAP_ACL_KEY_BYTES;
}

Entry fib_entry(const Route &r)
{
    Entry e;
    e.used = true;
    const FibKey k = fib_key(r.net, r.len);
    std::copy(k.begin(), k.end(), e.key.begin());
    e.prio = fib_priority(r.len);
    e.result = next_hop_result(r.next_hop);
    return e;
}

Entry acl_entry(const AclRule &r)
{
    Entry e;
    e.used = true;
    const AclKey k = acl_key(r);
    std::copy(k.begin(), k.end(), e.key.begin());
    e.prio = r.prio;
    e.acl_prio = r.acl_prio;
    e.result = acl_result(r);
    return e;
}

Entry entry_of(const EntryView &v)
{
    Entry e;
    if (!v.used)
        return e;
    e.used = true;
    std::copy(v.key.begin(), v.key.end(), e.key.begin());
    e.prio = v.prio;
    e.acl_prio = v.acl_prio;
    e.result = v.result;
    return e;
}

EntrySpec spec_of(uint32_t tbl, const Entry &e)
{
    return {{e.key.begin(), e.key.begin() + key_bytes(tbl)}, e.prio, e.result, e.acl_prio};
}

std::vector<EntrySpec> specs_of(uint32_t tbl, const std::vector<Entry> &entries)
{
    std::vector<EntrySpec> out;
    out.reserve(entries.size());
    for (const Entry &e : entries)
        out.push_back(spec_of(tbl, e));
    return out;
}

std::vector<uint32_t> used_locs(const TableModel &t)
{
    std::vector<uint32_t> out;
    for (uint32_t loc = 0; loc < t.size(); ++loc)
        if (t[loc].used)
            out.push_back(loc);
    return out;
}

std::string entry_brief(uint32_t tbl, const Entry &e)
{
    if (!e.used)
        return "unused";
    return describe_key(tbl, e.key.data()) + " prio " + std::to_string(e.prio) + " -> " +
           describe_result(tbl, e.result.data());
}

namespace
{

bool same_key(uint32_t tbl, const Entry &want, const EntryView &got)
{
    return std::equal(got.key.begin(), got.key.end(), want.key.begin()) &&
           (!is_orvex(tbl) || got.prio == want.prio);
}

} // namespace

bool same_entry(uint32_t tbl, const Entry &want, const EntryView &got)
{
    if (want.used != got.used)
        return false;
    if (!want.used)
        return true;
    return same_key(tbl, want, got) && got.result == want.result &&
           (tbl != TCAMWRAP_TBL_ACLI || got.acl_prio == want.acl_prio);
}

std::string mismatch_text(uint32_t tbl, const Entry &want, const EntryView &got)
{
    if (!got.used || !want.used)
        return "holds " + (got.used ? describe_key(tbl, got.key.data()) : std::string("nothing")) +
               ", expected " + entry_brief(tbl, want);
    if (!same_key(tbl, want, got))
        return "holds " + describe_key(tbl, got.key.data()) + " prio " + std::to_string(got.prio) +
               ", expected " + entry_brief(tbl, want);
    std::string text = "key right, result " + describe_result(tbl, got.result.data()) +
                       ", expected " + describe_result(tbl, want.result.data());
    if (tbl == TCAMWRAP_TBL_ACLI)
        text += " (ACL-priority " + std::to_string(got.acl_prio) + ", expected " +
                std::to_string(want.acl_prio) + ")";
    return text;
}

const char *held_name(Held h)
{
    switch (h) {
    case Held::before:
        return "before";
    case Held::unchanged:
        return "unchanged";
    case Held::after:
        return "after";
    case Held::nothing:
        return "nothing";
    case Held::torn:
        return "torn";
    case Held::other:
        break;
    }
    return "other";
}

Held held_by(const Unit &u, const EntryView &got)
{
    if (same_entry(u.tbl_type, u.before, got))
        return u.before == u.after ? Held::unchanged : Held::before;
    if (same_entry(u.tbl_type, u.after, got))
        return Held::after;
    if (!got.used)
        return Held::nothing;
    // A tcam3 write puts the result memories first, then the key.
    if (!is_orvex(u.tbl_type) && u.before.used && u.after.used &&
        same_key(u.tbl_type, u.before, got) && got.result == u.after.result)
        return Held::torn;
    return Held::other;
}

void Verification::add(Problem p)
{
    if (problems.size() < kKeptProblems)
        problems.push_back(std::move(p));
    ++problem_count;
}

namespace
{

std::string where(uint32_t inst, uint32_t tbl, uint32_t loc)
{
    return std::string(table_name(tbl)) + " inst " + std::to_string(inst) + " loc " + hexnum(loc);
}

using KeyOwners = std::unordered_map<std::string, uint32_t>; // key bytes -> loc

KeyOwners key_owners(uint32_t tbl, const TableModel &t)
{
    KeyOwners owners;
    for (uint32_t loc = 0; loc < t.size(); ++loc)
        if (t[loc].used)
            owners.emplace(std::string(t[loc].key.begin(), t[loc].key.begin() + key_bytes(tbl)),
                           loc);
    return owners;
}

// The kind of a loc that does not hold its model entry.
std::string wrong_kind(uint32_t tbl, uint32_t loc, const Entry &want, const EntryView &got,
                       const KeyOwners &owners)
{
    if (!got.used)
        return "lost";
    auto it = owners.find(std::string(got.key.begin(), got.key.end()));
    if (it != owners.end() && it->second != loc)
        return "crossed";
    if (want.used && same_key(tbl, want, got))
        return "wrong-result";
    return "wrong-entry";
}

// The in-flight units: a prefix holds its state after, the rest before; the
// first unit not done may be torn (tcam3).
bool inflight_in_order(const std::vector<Held> &held)
{
    std::size_t s = 0;
    while (s < held.size() && (held[s] == Held::after || held[s] == Held::unchanged))
        ++s;
    if (s < held.size() && held[s] == Held::torn)
        ++s;
    for (; s < held.size(); ++s)
        if (held[s] != Held::before && held[s] != Held::unchanged)
            return false;
    return true;
}

} // namespace

void verify_locs(const CardModel &model, const std::vector<Unit> &inflight,
                 const std::vector<uint32_t> &tables, Verification &v, CardModel &found)
{
    found = model;
    v.inflight_held.assign(inflight.size(), Held::other);
    std::map<std::tuple<uint32_t, uint32_t, uint32_t>, std::size_t> unit_at;
    for (std::size_t i = 0; i < inflight.size(); ++i)
        unit_at[{inflight[i].inst, inflight[i].tbl_type, inflight[i].loc}] = i;

    for (uint8_t inst = 0; inst < model.size(); ++inst)
        for (uint32_t tbl : tables) {
            const TableModel &t = model[inst][tbl];
            const KeyOwners owners = key_owners(tbl, t);
            for (uint32_t loc = 0; loc < t.size(); ++loc) {
                ++v.locs_checked;
                EntryView got;
                try {
                    got = read_entry(inst, tbl, loc);
                } catch (const Failure &e) {
                    ++v.loc_errors;
                    v.add({"read-failed", inst, tbl, loc, where(inst, tbl, loc) + ": " + e.what()});
                    continue;
                }
                found[inst][tbl][loc] = entry_of(got);
                auto u = unit_at.find({inst, tbl, loc});
                if (u != unit_at.end()) {
                    const Held h = held_by(inflight[u->second], got);
                    v.inflight_held[u->second] = h;
                    if (h != Held::nothing && h != Held::other)
                        continue;
                } else if (same_entry(tbl, t[loc], got)) {
                    continue;
                }
                ++v.loc_errors;
                v.add({wrong_kind(tbl, loc, t[loc], got, owners), inst, tbl, loc,
                       where(inst, tbl, loc) + ": " + mismatch_text(tbl, t[loc], got)});
            }
        }
    if (!inflight_in_order(v.inflight_held)) {
        ++v.loc_errors;
        std::string held;
        for (std::size_t i = 0; i < inflight.size(); ++i)
            held += std::string(i ? ", " : "") + "inst " + std::to_string(inflight[i].inst) +
                    " loc " + hexnum(inflight[i].loc) + " " + held_name(v.inflight_held[i]);
        const Unit &first = inflight.front();
        v.add({"in-flight", first.inst, first.tbl_type, first.loc,
               std::string(table_name(first.tbl_type)) +
                   ": the call in flight is not a done prefix and an untouched rest: " + held});
    }
}

namespace
{

// The model's entries of one table grouped by mask, hashed by masked value.
class MatchIndex
{
  public:
    MatchIndex(uint32_t tbl, const TableModel &t) : half_(key_bytes(tbl) / 2)
    {
        for (uint32_t loc = 0; loc < t.size(); ++loc) {
            if (!t[loc].used)
                continue;
            const std::string mask(t[loc].key.begin() + half_, t[loc].key.begin() + 2 * half_);
            auto [it, fresh] = group_of_.try_emplace(mask, groups_.size());
            if (fresh)
                groups_.push_back({mask, {}});
            Group &g = groups_[it->second];
            g.by_value[masked(t[loc].key.data(), g.mask)].push_back(loc);
        }
    }

    // Every loc whose entry matches search (a value half).
    std::vector<uint32_t> matches(const uint8_t *search) const
    {
        std::vector<uint32_t> out;
        for (const Group &g : groups_) {
            auto it = g.by_value.find(masked(search, g.mask));
            if (it != g.by_value.end())
                out.insert(out.end(), it->second.begin(), it->second.end());
        }
        return out;
    }

  private:
    struct Group {
        std::string mask;
        std::unordered_map<std::string, std::vector<uint32_t>> by_value;
    };
    std::string masked(const uint8_t *value, const std::string &mask) const
    {
        std::string out(half_, '\0');
        for (uint32_t i = 0; i < half_; ++i)
            out[i] = static_cast<char>(value[i] & static_cast<uint8_t>(mask[i]));
        return out;
    }
    uint32_t half_;
    std::vector<Group> groups_;
    std::unordered_map<std::string, std::size_t> group_of_;
};

// The entries the hardware may answer with: the highest priority on an Orvex
// table (ties in any order), the lowest location on a tcam3 one (no priorities).
std::vector<uint32_t> winners(uint32_t tbl, const TableModel &t, std::vector<uint32_t> locs)
{
    if (locs.empty())
        return locs;
    if (!is_orvex(tbl))
        return {*std::min_element(locs.begin(), locs.end())};
    uint16_t best = 0;
    for (uint32_t loc : locs)
        best = std::max(best, t[loc].prio);
    std::erase_if(locs, [&](uint32_t loc) { return t[loc].prio != best; });
    return locs;
}

std::string search_text(uint32_t tbl, const Entry &e)
{
    if (tbl == TCAMWRAP_TBL_FIB)
        if (auto r = fib_key_route(e.key.data()))
            return ipv4_text(r->net);
    return hex(e.key.data(), key_bytes(tbl) / 2);
}

} // namespace

void verify_lookups(const CardModel &found, const std::vector<uint32_t> &tables, Verification &v)
{
    for (uint8_t inst = 0; inst < found.size(); ++inst)
        for (uint32_t tbl : tables) {
            const TableModel &t = found[inst][tbl];
            const MatchIndex index(tbl, t);
            const tcam_info *info = managed_table(inst, tbl);
            for (uint32_t loc = 0; loc < t.size(); ++loc) {
                if (!t[loc].used)
                    continue;
                ++v.lookups_checked;
                const uint8_t *search = t[loc].key.data();
                const std::vector<uint32_t> want = winners(tbl, t, index.matches(search));
                uint32_t sloc = 0;
                ResultWord got{};
                const int rc = sim_hw_lookup_result(inst, tbl, search, &sloc, got.data());
                uint32_t got_loc = sloc;
                if (info != nullptr)
                    got_loc = rc == 1 && sloc < info->lmt_sz ? info->rlmt[sloc]
                                                             : TCAMWRAP_INVALID_LOC;
                const bool winner = std::find(want.begin(), want.end(), got_loc) != want.end();
                if (rc == 1 && winner && got == t[got_loc].result)
                    continue;
                ++v.lookup_errors;
                const uint32_t want_loc = want.empty() ? loc : want.front();
                v.add({"lookup", inst, tbl, loc,
                       std::string(table_name(tbl)) + " inst " + std::to_string(inst) +
                           " lookup " + search_text(tbl, t[loc]) + ": " +
                           (rc == 1 ? "loc " + hexnum(got_loc) + " " +
                                          describe_result(tbl, got.data())
                                    : std::string("no match")) +
                           ", expected loc " + hexnum(want_loc) + " " +
                           describe_result(tbl, t[want_loc].result.data()) +
                           (want.size() > 1 ? " (or another of equal priority)" : "")});
            }
        }
}

void verify_audit(Verification &v)
{
    for (const Difference &d : audit_running()) {
        ++v.audit_differences;
        v.add({"audit:" + d.kind, d.inst, d.tbl_type, d.loc, "audit: " + d.text});
    }
}

} // namespace tcamwrap::cli

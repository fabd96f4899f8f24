// engine.h - the placement engine of one managed TCAM table.
//
// The table is split in two banks (bank 0 = the lower half of the locations,
// bank 1 = the upper half). Inside a bank a higher priority sits at a lower
// location wherever two entries overlap (some packet matches both keys). The
// entries form groups whose spans [first, last] hold no other group's entry
// and cover disjoint priority ranges [low, key], in priority order; the free
// locations between two spans form a gap. Inside a group of one priority
// nothing needs ordering; inside a ranged group (low < key) only overlapping
// entries keep priority order.
//
// Insert never moves an entry: the client's callback handle describes the one
// entry being written, and a move report in the middle of an insert would
// replace it. A new entry takes a free location of its group (a hole of the
// span, or a gap beside it): in a ranged group one between its overlapping
// entries of higher and lower priority, nearest its place in priority order,
// at the cost of one comparison per entry of the group. A priority new to the
// bank gets a group in the gap where it belongs, at the point that splits it
// by the weights of the two new gaps; in a load in priority order (kTrendRun
// new top or bottom priorities in a row) it joins the edge group instead while
// that has fewer than kMaxRange entries.
//
// Groom, which the client calls after every insert, makes the room for the
// next one:
//  - while the bank has no more free locations than gaps, the groups that
//    changed merge into a small neighbour (the gap becomes holes; no move);
//  - a ranged group short of holes after an insert gets one walked next to it;
//  - an empty gap next to the groups that changed takes one location from the
//    nearest spare space, every group in between shifting by one: one move for
//    a group of one priority, a walk of the free place through a ranged group
//    (jumps of at most kMaxHop that pass no overlapping entry the wrong way,
//    at most kGroomBudget moves per groom); a gap below kMinGap is topped up
//    the same way;
//  - while a bank is young (16, 32, 64, ... entries, up to 1/8 of it), or
//    every 1/kTrendPlans of it in a load in priority order, the layout is
//    planned: each gap deserves a share of the free space by its weight (in a
//    load in order the edge it grows to gets it all), and a group far from its
//    planned place slides there, each entry moving once (a ranged group keeps
//    its order: each entry jumps over free places only).
//
// The engine talks to the hardware image and to the client's callbacks only
// through a Port, so it runs the same over the simulated card and in tests.
#pragma once

#include <cstdint>
#include <functional>
#include <map>
#include <set>
#include <string>
#include <vector>

#include "slot_map.h"

namespace orvex {

// Operation codes of the camindex callback.
enum CamOp : uint32_t {
    kPreAdd = 0,
    kPostAdd = 1,
    kPreDel = 2,
    kPostDel = 3,
    kPreMove = 4,
    kPostMove = 5,
};

// What the engine needs from the outside world. Results: 0, or -1 (non-zero)
// with errno set, as the platform calls report them.
class Port {
public:
    virtual ~Port() = default;
    virtual int hw_write(uint32_t loc, const uint8_t *key, uint16_t prio) = 0;
    virtual int hw_clear(uint32_t loc) = 0;
    virtual int hw_get(uint32_t loc, bool *valid, uint8_t *key, uint16_t *prio) = 0;
    // count locations from first, laid end to end; a port may read them at once.
    virtual int hw_get_range(uint32_t first, uint32_t count, uint8_t *valid, uint8_t *keys,
                             uint16_t *prio, uint32_t key_bytes) {
        for (uint32_t i = 0; i < count; ++i) {
            bool v = false;
            if (hw_get(first + i, &v, keys + std::size_t{i} * key_bytes, &prio[i]) != 0) return -1;
            valid[i] = v ? 1 : 0;
        }
        return 0;
    }
    virtual int camindex(uint32_t op, uint32_t old_sloc, uint32_t new_sloc) = 0;
    // *ok: may the entry being inserted take sloc?
    virtual int validate(uint32_t sloc, bool *ok) = 0;
    // May the entry at `entry` move beside the entry at `partner`, the other
    // location of its pair (2i, 2i+1)? Validate speaks only for the entry being
    // inserted, so the engine asks this for its own moves.
    virtual bool may_pair(uint32_t entry, uint32_t partner) {
        (void)entry;
        (void)partner;
        return true;
    }
};

struct BankStats {
    uint32_t entries = 0;
    uint32_t groups = 0;
    uint32_t open_segs = 0;
    uint32_t full_segs = 0;
    uint32_t free_segs = 0;
    uint32_t total_segs = 0;
};

// Work counters of one table, for benchmarks and the demo.
struct Counters {
    uint64_t inserts = 0;           // successful inserts
    uint64_t insert_failures = 0;
    uint64_t deletes = 0;
    uint64_t grooms = 0;
    uint64_t moves = 0;             // every move, all made by groom
    uint64_t max_groom_moves = 0;   // most moves of a single groom call
    uint64_t repeat_group_moves = 0;  // moves of a group already moved in the same groom
    uint64_t validate_calls = 0;
    uint64_t validate_refusals = 0;
};

class Table {
public:
    static constexpr uint32_t kSegment = SlotMap::kWordBits;  // locations per statistics segment
    static constexpr uint32_t kMinGap = 2;    // free locations groom wants in every gap
    // The layout is planned when a bank reaches 16, 32, 64, ... entries, up
    // to 1/kPlanUntil of its size: early, while groups are small and cheap to
    // move.
    static constexpr uint32_t kFirstPlan = 16;
    static constexpr uint32_t kPlanUntil = 8;
    static constexpr int64_t kMinSlide = 8;  // shortest slide worth planning
    // A group slides only when it is off its planned place by more than this
    // share (percent) of the free space the plan gives the two gaps beside it.
    static constexpr int64_t kSlideSlack = 25;
    static constexpr uint32_t kMaxStalls = 64;      // grooms a slide may wait for room
    static constexpr uint64_t kMaxSlideMoves = 64;  // slide moves per groom
    static constexpr uint32_t kTightWalk = 64;  // groups a refill crosses in a bank short of room
    // Groom merges a group into a neighbour while the bank has fewer than
    // kGapShare free locations per gap, up to kMaxRange entries per group.
    static constexpr uint32_t kGapShare = 1;
    static constexpr uint32_t kMaxRange = 256;
    static constexpr uint32_t kRangedSlideMoves = 8;
    static constexpr int32_t kTrendRun = 16;
    static constexpr uint32_t kTrendPlans = 16;
    static constexpr uint32_t kWideGap = 256;
    static constexpr uint32_t kTrendGap = 8;
    // Moves a groom may spend on refills: a refill that would cross more
    // leaves the free place in the gap it reached, and a later groom goes on.
    static constexpr uint64_t kGroomBudget = 64;
    static constexpr uint32_t kMaxHop = 64;  // longest jump of a walk through a ranged group

    // size: locations of the table; key_bytes: value then mask (18 or 36).
    Table(uint32_t size, uint32_t key_bytes, Port &port);

    uint32_t size() const { return size_; }
    uint32_t key_bytes() const { return key_bytes_; }
    unsigned bank_of(uint32_t sloc) const { return sloc < banks_[1].base ? 0u : 1u; }

    // Rebuild the copy from the hardware image (the image is taken as it is).
    int restore();
    // Start empty: clear every valid hardware location, without callbacks.
    int reset_hardware();

    // Place a new entry in bank (0 or 1); *sloc receives its location.
    // -1 with errno: EINVAL bad bank, ENOSPC no valid free location without a
    // move, or the errno of a failing validate, PRE_ADD or hardware write.
    int insert(const uint8_t *key, uint16_t prio, unsigned bank, uint32_t *sloc);
    // -1 with errno: EINVAL out of range, ENOENT no entry there, or a failing
    // PRE_DEL's or hardware clear's errno.
    int remove(uint32_t sloc);
    // Key (value then mask) and priority of the entry at sloc; same errors.
    int read(uint32_t sloc, uint8_t *key, uint16_t *prio) const;
    // Make room in bank for the next insert; *moves (may be NULL) receives the
    // number of moves made. -1 with errno when a PRE_MOVE or a hardware write
    // fails (the moves done before stay done).
    int groom(unsigned bank, uint32_t *moves);
    // Rewrite the hardware at sloc from the copy; -1 with ENOENT when the copy
    // holds nothing there (or sloc is out of range), the write's errno else.
    int repair(uint32_t sloc);

    bool holds(uint32_t sloc) const { return sloc < size_ && !slots(sloc).is_free(local(sloc)); }
    const uint8_t *key_at(uint32_t sloc) const { return &keys_[std::size_t{sloc} * key_bytes_]; }
    uint16_t prio_at(uint32_t sloc) const { return prio_[sloc]; }
    // Calls fn(sloc) for every entry of the copy in location order.
    void for_each_entry(const std::function<void(uint32_t)> &fn) const;

    BankStats stats(unsigned bank) const;
    const Counters &counters() const { return counters_; }
    void reset_counters() { counters_ = Counters{}; }

    // The engine's invariants and the hardware image against the copy; false
    // with the first violation in why.
    bool check(std::string &why) const;

private:
    struct Group {
        uint32_t first = 0;  // bank-relative span [first, last]
        uint32_t last = 0;
        uint32_t count = 0;
        int8_t slide = 0;       // moving toward higher (1) or lower (-1) locations
        uint32_t slide_to = 0;  // where its first (1) or last (-1) entry is going
        uint32_t stalls = 0;    // grooms the slide found no room
        uint16_t low = 0;       // lowest priority of the group (its key is the highest)
        uint32_t holes() const { return last - first + 1 - count; }
    };
    // Groups by descending priority, which is ascending location.
    using GroupMap = std::map<uint16_t, Group, std::greater<uint16_t>>;
    using GroupIt = GroupMap::iterator;

    struct Bank {
        uint32_t base = 0;
        uint32_t size = 0;
        uint32_t used = 0;
        SlotMap slots;
        GroupMap groups;
        std::vector<uint16_t> dirty;    // groups whose gaps groom must look at
        std::set<uint16_t, std::greater<uint16_t>> sliding;  // groups on their way, by location
        uint32_t next_plan = kFirstPlan;  // entries at which the layout is planned next
        bool rescan = false;            // look at every gap (after a restore)
        uint32_t last_insert = SlotMap::npos;  // where the latest insert went
        int32_t trend_run = 0;  // inserts in a row above (> 0) or below (< 0) every group
    };

    // A gap is named by the group below it (groups.end() for the last gap).
    struct Gap {
        uint32_t lo;
        uint32_t hi;  // [lo, hi), bank-relative
        uint32_t size() const { return hi - lo; }
    };

    Bank &bank(unsigned b) { return banks_[b]; }
    void empty_bank(Bank &b, bool rescan);
    const SlotMap &slots(uint32_t sloc) const { return banks_[bank_of(sloc)].slots; }
    uint32_t local(uint32_t sloc) const { return sloc - banks_[bank_of(sloc)].base; }

    Gap gap_before(const Bank &b, GroupMap::const_iterator below) const;
    static uint64_t gap_weight(const Bank &b, GroupMap::const_iterator above,
                               GroupMap::const_iterator below, int32_t prio);

    // The group whose priority range holds prio, or groups.end().
    static GroupIt group_for(Bank &b, uint16_t prio);
    static bool ranged(GroupMap::const_iterator g) { return g->second.low != g->first; }
    // Can the entry at sloc and the key match the same packet?
    bool overlaps(uint32_t sloc, const uint8_t *key) const;
    // Where an entry of key and prio may go inside ranged group g: after its
    // overlapping entries of higher priority, before those of lower priority.
    // [*lo, *hi) bank-relative; *lo is g's first location when nothing above
    // overlaps (the gap above is open too), *hi past its last likewise; both
    // npos when no place is left between them. *at: its place if the group
    // were in priority order.
    void window(const Bank &b, const Group &g, const uint8_t *key, uint16_t prio, uint32_t *lo,
                uint32_t *hi, uint32_t *at) const;

    // Insert helpers: try a candidate (validate), find one for an existing or a
    // new group. Return 0 with *pos set or npos when none fits, -1 on error.
    int try_candidate(const Bank &b, uint32_t pos, uint32_t *tries, bool *ok);
    int place_in_group(const Bank &b, GroupIt g, const uint8_t *key, uint16_t prio, uint32_t *pos);
    int place_new_group(const Bank &b, uint16_t prio, uint32_t *pos);
    // A priority no group covers; *g receives the group it joins, if any.
    int place_new_priority(Bank &b, const uint8_t *key, uint16_t prio, GroupIt *g, uint32_t *pos);
    int scan_gap(const Bank &b, Gap gap, uint32_t start, bool up, uint32_t *tries, uint32_t *pos);

    // g: the group the entry joins (end(): a new group of its own).
    int write_entry(Bank &b, uint32_t pos, const uint8_t *key, uint16_t prio, GroupIt g);
    void forget_entry(Bank &b, uint32_t pos);
    void mark_dirty(Bank &b, uint16_t group);

    // Groom helpers.
    bool too_many_gaps(const Bank &b) const;
    // Merge group g into a neighbour (the upper one absorbs the lower one);
    // the merged group, or g when no neighbour is small enough.
    GroupIt merge_small(Bank &b, GroupIt g);
    void absorb(Bank &b, GroupIt upper, GroupIt lower);
    enum class Refill { kHard, kReserve };
    int refill_gap(Bank &b, GroupIt below, Refill mode);
    void plan_slides(Bank &b);
    int slide_step(Bank &b, GroupIt g);
    int run_slides(Bank &b);
    int slide_ranged(Bank &b, GroupIt g);
    static int end_slide(Group &grp);
    int shift(Bank &b, GroupIt g, bool down);
    uint32_t pick_place(const Bank &b, uint32_t from, uint32_t lo, uint32_t hi, bool ascending);
    // Ranged group: walk a free place to target by moves that keep overlap
    // order; and keep its holes where the inserts go.
    int walk_free(Bank &b, Group &g, uint32_t free_at, uint32_t target);
    int top_up_holes(Bank &b, GroupIt g, uint32_t pos);
    static uint64_t hole_share(const Bank &b, const Group &g);
    static bool spare_holes(const Bank &b, GroupMap::const_iterator g);
    bool may_jump(const Bank &b, uint32_t from, uint32_t to) const;
    int move_in_group(Bank &b, Group &g, uint32_t from, uint32_t to);
    int move(Bank &b, uint32_t from, uint32_t to);
    // Has the group moved in the groom running? note_move counts a second move.
    bool moved_now(uint16_t key) const;
    void note_move(uint16_t key);

    bool check_bank(unsigned bi, std::string &why) const;

    uint32_t size_;
    uint32_t key_bytes_;
    Port &port_;
    Bank banks_[2];
    std::vector<uint8_t> keys_;
    std::vector<uint16_t> prio_;
    std::vector<uint32_t> moved_in_groom_;  // per group: epoch of the groom that moved it
    uint32_t groom_epoch_ = 0;
    uint64_t budget_end_ = 0;  // the move count at which a groom's refills stop
    Counters counters_;
};

// The 32-bit words of one half (value or mask) of a key, least significant
// first, as the restore and walk callbacks take them: the half's bytes are one
// big-endian number; 9 bytes give 3 words (the top one 8 bits), 18 bytes 5.
uint32_t key_half_words(const uint8_t *half, uint32_t half_bytes, uint32_t *words,
                        uint32_t max_words);

}  // namespace orvex

// fake_client.h - a client of the placement engine as the library is one: it
// keeps loc <-> sloc maps from the camindex callbacks (PRE_ADD maps, POST_MOVE
// and POST_DEL follow), refuses places by a rule, and records every way the
// engine breaks the protocol:
//  - each PRE_x is followed by its POST_x with the same locations, nothing nested;
//  - adds and deletes happen only in insert and delete, moves only in groom;
//  - an add goes to a free place that validate did not refuse for this insert;
//  - a move copies the entry to its new place, and clears the old one only
//    after POST_MOVE (the client persists the move there);
//  - no hardware write or clear happens outside these pairs.
#pragma once

#include <cerrno>
#include <cstdint>
#include <cstring>
#include <set>
#include <string>
#include <vector>

#include "engine.h"
#include "memory_port.h"

namespace orvex::test {

constexpr uint32_t kNone = 0xFFFFFFFFu;

class FakeClient : public MemoryPort {
public:
    enum class Phase { kIdle, kInsert, kDelete, kGroom };

    FakeClient(uint32_t size, uint32_t key_bytes)
        : MemoryPort(size, key_bytes), lmt(size * 2, kNone), rlmt(size, kNone), key_bytes_(key_bytes) {}

    // set by the test
    Phase phase = Phase::kIdle;
    uint32_t loc = kNone;      // the loc an insert writes
    uint32_t refuse_pct = 0;   // share of places validate refuses
    uint64_t refuse_salt = 0;  // changes the refused places
    int fail_op = -1;          // camindex op that fails with EIO
    int validate_errno = 0;    // non-zero: validate fails with it

    // kept by the client
    std::vector<uint32_t> lmt;       // loc -> sloc
    std::vector<uint32_t> rlmt;      // sloc -> loc
    std::set<uint32_t> refused;      // places refused during the current insert
    uint64_t moves = 0;
    std::vector<std::string> errors;

    void start(Phase p) {
        phase = p;
        refused.clear();
    }

    int validate(uint32_t sloc, bool *ok) override {
        if (validate_errno != 0) {
            errno = validate_errno;
            return -1;
        }
        const uint64_t h = (sloc + 1) * 0x9E3779B97F4A7C15ull ^ refuse_salt;
        *ok = (h >> 33) % 100 >= refuse_pct;
        if (!*ok) refused.insert(sloc);
        return 0;
    }

    int camindex(uint32_t op, uint32_t old_sloc, uint32_t new_sloc) override {
        if (op % 2 == 0) {  // PRE
            if (pending_ >= 0) fault("PRE " + std::to_string(op) + " inside an open pair");
            if (clear_due_) fault("a move's old place is not cleared before the next call");
            if (static_cast<int>(op) == fail_op) {
                errno = EIO;
                return -1;
            }
            pending_ = static_cast<int>(op);
            old_ = old_sloc;
            new_ = new_sloc;
            copied_ = false;
            pre_checks(op, old_sloc, new_sloc);
            return 0;
        }
        if (pending_ != static_cast<int>(op) - 1 || old_ != old_sloc || new_ != new_sloc)
            fault("POST " + std::to_string(op) + " does not close the open PRE");
        post_updates(op, old_sloc, new_sloc);
        pending_ = -1;
        return 0;
    }

    int hw_write(uint32_t at, const uint8_t *key, uint16_t prio) override {
        if (pending_ == kPreMove) {
            if (at != new_ || copied_) fault("move writes somewhere else than its new place");
            if (!valid(old_) || std::memcmp(key, this->key(old_), key_bytes_) != 0 || prio != this->prio(old_))
                fault("move copy differs from the entry at the old place");
            copied_ = true;
        } else if (pending_ == kPreAdd) {
            if (at != new_) fault("add writes somewhere else than announced");
        } else {
            fault("hardware write outside a callback pair");
        }
        return MemoryPort::hw_write(at, key, prio);
    }

    int hw_clear(uint32_t at) override {
        if (pending_ == kPreMove) {
            fault("move clears its old place before POST_MOVE");
        } else if (clear_due_) {
            if (at != old_) fault("move clears somewhere else than its old place");
            clear_due_ = false;
        } else if (pending_ == kPreDel) {
            if (at != old_) fault("delete clears somewhere else than announced");
        } else if (phase != Phase::kIdle) {
            fault("hardware clear outside a callback pair");
        }
        return MemoryPort::hw_clear(at);
    }

    // The test's own writes (an image to restore from).
    void put(uint32_t at, const uint8_t *key, uint16_t prio) { MemoryPort::hw_write(at, key, prio); }

private:
    void fault(const std::string &what) {
        if (errors.size() < 20) errors.push_back(what);
    }
    bool used(uint32_t s) const { return valid(s) || rlmt.at(s) != kNone; }
    bool owned(uint32_t s) const { return valid(s) && rlmt.at(s) != kNone; }

    void pre_checks(uint32_t op, uint32_t old_sloc, uint32_t new_sloc) {
        if (op == kPreAdd) {
            if (phase != Phase::kInsert) fault("add outside an insert");
            if (used(new_sloc)) fault("add to a used place");
            if (refused.count(new_sloc) != 0) fault("add to a refused place");
            lmt.at(loc) = new_sloc;  // the library maps at PRE_ADD
            rlmt.at(new_sloc) = loc;
        } else if (op == kPreDel) {
            if (phase != Phase::kDelete) fault("delete outside a delete");
            if (!owned(old_sloc)) fault("delete of an empty place");
        } else if (op == kPreMove) {
            if (phase != Phase::kGroom) fault("move outside groom");
            if (!owned(old_sloc)) fault("move of an empty place");
            if (used(new_sloc)) fault("move onto a used place");
        } else {
            fault("unknown op " + std::to_string(op));
        }
    }

    void post_updates(uint32_t op, uint32_t old_sloc, uint32_t new_sloc) {
        if (op == kPostAdd) {
            if (!valid(new_sloc)) fault("POST_ADD before the entry is written");
            return;
        }
        const uint32_t l = old_sloc < rlmt.size() ? rlmt[old_sloc] : kNone;
        if (op == kPostDel) {
            if (valid(old_sloc)) fault("POST_DEL before the entry is cleared");
            if (l != kNone) lmt.at(l) = kNone;
        } else if (op == kPostMove) {
            if (!copied_) fault("POST_MOVE before the copy is written");
            if (!valid(old_sloc)) fault("POST_MOVE after the old place was cleared");
            clear_due_ = true;
            if (l != kNone) lmt.at(l) = new_sloc;
            rlmt.at(new_sloc) = l;
            ++moves;
        } else {
            return;
        }
        rlmt.at(old_sloc) = kNone;
    }

    int pending_ = -1;
    uint32_t old_ = 0;
    uint32_t new_ = 0;
    bool copied_ = false;
    bool clear_due_ = false;  // a move's POST_MOVE came, its old place is next
    uint32_t key_bytes_;
};

}  // namespace orvex::test

// clients.hpp - two ways to program one table of the simulated card with the
// same entries at the same locations:
//
//  * LibraryTable goes through libtcamwrap's public calls.
//  * FloorTable is the floor the library is measured against: the same placements
//    without the library. It calls the search engine directly (insert and groom,
//    delete, read) with minimal callbacks that write the result memories (fwd_*)
//    and store the changed 1024-entry map segment once per insert, move and delete
//    (kvs_store). It keeps its map and each entry's result in memory, so a move
//    reads nothing back, and it keeps no journal: an overwrite is an insert of the
//    new copy (its map segment stored) and a delete of the old one.
//
// On a tcam3 table both write the driver directly, the floor without the
// library's checks.
#pragma once

#include <array>
#include <cstdint>
#include <vector>

#include "workload.hpp"

namespace tcamwrap::bench
{

class TableClient
{
  public:
    virtual ~TableClient() = default;
    // Add the entry at loc, or overwrite it when loc holds one.
    virtual int write(uint32_t loc, const Entry &e) = 0;
    virtual int remove(uint32_t loc) = 0;
    // The key at loc (key_bytes of the table).
    virtual int read(uint32_t loc, uint8_t *key) = 0;
    // The physical location of loc; TCAMWRAP_INVALID_LOC when unused.
    virtual uint32_t sloc(uint32_t loc) const = 0;
};

class LibraryTable final : public TableClient
{
  public:
    // inst: one instance, or TCAMWRAP_ALL_INSTS to write every instance at once.
    LibraryTable(uint8_t inst, uint32_t tbl_type) : inst_(inst), tbl_type_(tbl_type) {}
    int write(uint32_t loc, const Entry &e) override;
    int remove(uint32_t loc) override;
    int read(uint32_t loc, uint8_t *key) override;
    uint32_t sloc(uint32_t loc) const override;

  private:
    tbl_params params(uint32_t loc) const { return tbl_params{inst_, tbl_type_, 1, loc, 0}; }
    uint8_t inst_;
    uint32_t tbl_type_;
};

class FloorTable final : public TableClient
{
  public:
    // Registers the table with the search engine (fresh) unless it is a tcam3 table.
    FloorTable(uint8_t inst, uint32_t tbl_type, uint32_t size, bool orvex, uint32_t kvs_handle);
    FloorTable(const FloorTable &) = delete;
    FloorTable &operator=(const FloorTable &) = delete;
    int start_error() const { return start_rc_; }

    int write(uint32_t loc, const Entry &e) override;
    int remove(uint32_t loc) override;
    int read(uint32_t loc, uint8_t *key) override;
    uint32_t sloc(uint32_t loc) const override;

  private:
    static int validate_cb(void *handle, uint32_t sloc, uint8_t *result);
    static int camindex_cb(void *handle, uint32_t, uint32_t, uint32_t op, uint32_t old_sloc,
                           uint32_t new_sloc);
    int write_results(uint32_t loc, uint32_t sloc);
    int store_segment(uint32_t loc);
    int write_tcam3(uint32_t loc, const Entry &e);
    tbl_params params(uint32_t addr) const { return tbl_params{inst_, tbl_type_, 1, addr, 0}; }
    uint8_t bank_of(uint32_t loc) const { return loc < size_ / 2 ? 0 : 1; }

    uint8_t inst_;
    uint32_t tbl_type_;
    uint32_t size_;
    bool orvex_;
    uint32_t kvs_handle_;
    int start_rc_ = 0;
    std::vector<uint32_t> lmt_, rlmt_;
    std::vector<std::array<uint8_t, TCAMWRAP_RESULT_BYTES>> results_; // by loc
    std::vector<uint8_t> acl_prio_;                                    // by loc
    // The entry in flight: its loc, and whether its delete only drops an old copy.
    uint32_t loc_ = TCAMWRAP_INVALID_LOC;
    bool dropping_old_copy_ = false;
    std::array<uint8_t, 8> key_prefix_{};
};

} // namespace tcamwrap::bench

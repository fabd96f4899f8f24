// probe.cpp - allocation counting and the restart tap (see probe.hpp).
//
// Both run inside malloc or around platform calls, so they use no allocation,
// no lock and only plain globals: the benchmark has one thread.
#include "probe.hpp"

#include <cstddef>
#include <cstdlib>
#include <cstring>
#include <ctime>
#include <new>

#include <dlfcn.h>
#include <link.h>

#include "tcamwrap_platform.h"

extern "C" {
void *__libc_malloc(std::size_t size);
void *__libc_calloc(std::size_t count, std::size_t size);
void *__libc_realloc(void *ptr, std::size_t size);
void __libc_free(void *ptr);
}

namespace tcamwrap::bench::probe
{
namespace
{

enum class Owner : uint8_t { library, store, simulator, runtime };

// Executable ranges of the shared objects that own allocations.
struct Range {
    uintptr_t lo, hi;
    Owner owner;
};
constexpr int kMaxRanges = 64;
Range g_ranges[kMaxRanges];
int g_range_count = 0;

constexpr const char *kStoreObjects[] = {"libkvs.so", "liblmdb.so"};
constexpr const char *kSimulatorObjects[] = {"libfwd.so", "liborvex_tcam.so", "libboardsvc.so",
                                             "libdbgsvc", "libtcamwrap_simcore.so"};

bool name_has(const char *name, const char *part)
{
    return name != nullptr && std::strstr(name, part) != nullptr;
}

int note_object(struct dl_phdr_info *info, std::size_t, void *)
{
    Owner owner = Owner::runtime;
    if (name_has(info->dlpi_name, "libtcamwrap.so"))
        owner = Owner::library;
    for (const char *sim : kSimulatorObjects)
        if (name_has(info->dlpi_name, sim))
            owner = Owner::simulator;
    for (const char *store : kStoreObjects)
        if (name_has(info->dlpi_name, store))
            owner = Owner::store;
    if (owner == Owner::runtime)
        return 0;
    for (int i = 0; i < info->dlpi_phnum && g_range_count < kMaxRanges; ++i) {
        const ElfW(Phdr) &ph = info->dlpi_phdr[i];
        if (ph.p_type != PT_LOAD || (ph.p_flags & PF_X) == 0)
            continue;
        const uintptr_t lo = info->dlpi_addr + ph.p_vaddr;
        g_ranges[g_range_count++] = Range{lo, lo + ph.p_memsz, owner};
    }
    return 0;
}

Owner owner_of(const void *caller)
{
    const auto at = reinterpret_cast<uintptr_t>(caller);
    for (int i = 0; i < g_range_count; ++i)
        if (at >= g_ranges[i].lo && at < g_ranges[i].hi)
            return g_ranges[i].owner;
    return Owner::runtime;
}

bool g_counting = false;
Allocations g_counts;

// The library's live blocks: it allocates a few large tables at start-up only.
struct Block {
    void *ptr;
    std::size_t size;
};
constexpr int kMaxBlocks = 512;
Block g_blocks[kMaxBlocks];
int g_block_count = 0;
uint64_t g_live = 0;
uint64_t g_peak = 0;

void restart_note_library_alloc();

void note_alloc(const void *caller, void *ptr, std::size_t size)
{
    if (ptr == nullptr || g_range_count == 0)
        return;
    const Owner owner = owner_of(caller);
    if (g_counting) {
        switch (owner) {
        case Owner::library: ++g_counts.library; break;
        case Owner::store: ++g_counts.store; break;
        case Owner::simulator: ++g_counts.simulator; break;
        case Owner::runtime: ++g_counts.runtime; break;
        }
    }
    if (owner != Owner::library || g_block_count == kMaxBlocks)
        return;
    g_blocks[g_block_count++] = Block{ptr, size};
    g_live += size;
    if (g_live > g_peak)
        g_peak = g_live;
    restart_note_library_alloc();
}

void note_free(void *ptr)
{
    if (ptr == nullptr)
        return;
    for (int i = g_block_count - 1; i >= 0; --i)
        if (g_blocks[i].ptr == ptr) {
            g_live -= g_blocks[i].size;
            g_blocks[i] = g_blocks[--g_block_count];
            return;
        }
}

// ---- restart tap ---------------------------------------------------------------

enum Phase { kSetup, kMaps, kLmtRestore, kEngineInit, kReconcile, kPhases };

struct Tap {
    bool on = false;
    Phase phase = kSetup;
    uint64_t last = 0;
    uint64_t in_phase[kPhases] = {};
    uint64_t store_read = 0, store_write = 0, engine_delete = 0;
};
Tap g_tap;

uint64_t now_ns()
{
    timespec ts{};
    clock_gettime(CLOCK_MONOTONIC, &ts);
    return uint64_t(ts.tv_sec) * 1000000000u + uint64_t(ts.tv_nsec);
}

// Charge the time since the last event to the current phase; returns now.
uint64_t tap_charge()
{
    const uint64_t t = now_ns();
    g_tap.in_phase[g_tap.phase] += t - g_tap.last;
    g_tap.last = t;
    return t;
}

// During a restart the library allocates only its tables' records and maps.
void restart_note_library_alloc()
{
    if (!g_tap.on)
        return;
    tap_charge();
    g_tap.phase = kMaps;
}

// Time a forwarded call into one of the outside buckets.
template <typename Call> auto tap_outside(uint64_t &bucket, Phase after, Call call)
{
    tap_charge();
    auto result = call();
    const uint64_t t = now_ns();
    bucket += t - g_tap.last;
    g_tap.last = t;
    g_tap.phase = after;
    return result;
}

// The simulator's definitions of the calls this program interposes.
struct Next {
    decltype(&kvs_store) store = nullptr;
    decltype(&kvs_delete) del = nullptr;
    decltype(&kvs_move2key) move2key = nullptr;
    decltype(&kvs_getvalue) getvalue = nullptr;
    decltype(&kvs_move2location) move2location = nullptr;
    decltype(&orvex_tcam_init) engine_init = nullptr;
    decltype(&orvex_tcam_delete_entry) engine_delete = nullptr;
};
Next g_next;

template <typename F> void resolve(F &slot, const char *name)
{
    slot = reinterpret_cast<F>(dlsym(RTLD_NEXT, name));
    if (slot == nullptr)
        std::abort();
}

const Next &next()
{
    if (g_next.store == nullptr) {
        resolve(g_next.store, "kvs_store");
        resolve(g_next.del, "kvs_delete");
        resolve(g_next.move2key, "kvs_move2key");
        resolve(g_next.getvalue, "kvs_getvalue");
        resolve(g_next.move2location, "kvs_move2location");
        resolve(g_next.engine_init, "orvex_tcam_init");
        resolve(g_next.engine_delete, "orvex_tcam_delete_entry");
    }
    return g_next;
}

double seconds(uint64_t ns)
{
    return double(ns) / 1e9;
}

} // namespace

void init()
{
    g_range_count = 0;
    dl_iterate_phdr(note_object, nullptr);
    (void)next();
}

void count_allocations(bool on)
{
    g_counting = on;
}
Allocations allocations()
{
    return g_counts;
}
void reset_allocations()
{
    g_counts = Allocations{};
}
uint64_t library_live_bytes()
{
    return g_live;
}
uint64_t library_peak_bytes()
{
    return g_peak;
}
void reset_library_peak()
{
    g_peak = g_live;
}

void restart_tap_start()
{
    g_tap = Tap{};
    g_tap.last = now_ns();
    g_tap.on = true;
}

RestartPhases restart_tap_stop()
{
    tap_charge();
    g_tap.on = false;
    RestartPhases p;
    p.setup = seconds(g_tap.in_phase[kSetup]);
    p.maps = seconds(g_tap.in_phase[kMaps]);
    p.lmt_restore = seconds(g_tap.in_phase[kLmtRestore]);
    p.engine_init = seconds(g_tap.in_phase[kEngineInit]);
    p.reconcile = seconds(g_tap.in_phase[kReconcile]);
    p.store_read = seconds(g_tap.store_read);
    p.store_write = seconds(g_tap.store_write);
    p.engine_delete = seconds(g_tap.engine_delete);
    return p;
}

} // namespace tcamwrap::bench::probe

using namespace tcamwrap::bench::probe;

// ---- interposed platform calls ------------------------------------------------
// A store read opens the LMT restore of a table whose maps were just allocated;
// orvex_tcam_init is the engine's phase, and what follows it is reconciliation.

extern "C" int kvs_store(uint32_t handle, uint32_t mode, kvs_buf *key, kvs_buf *value)
{
    if (!g_tap.on)
        return next().store(handle, mode, key, value);
    return tap_outside(g_tap.store_write, g_tap.phase,
                       [&] { return next().store(handle, mode, key, value); });
}

extern "C" int kvs_delete(uint32_t handle, kvs_buf *key)
{
    if (!g_tap.on)
        return next().del(handle, key);
    return tap_outside(g_tap.store_write, g_tap.phase, [&] { return next().del(handle, key); });
}

namespace
{
Phase phase_after_store_read()
{
    return g_tap.phase == kMaps ? kLmtRestore : g_tap.phase;
}
} // namespace

extern "C" kvs_buf *kvs_move2key(uint32_t handle, kvs_buf *key, int *err)
{
    if (!g_tap.on)
        return next().move2key(handle, key, err);
    return tap_outside(g_tap.store_read, phase_after_store_read(),
                       [&] { return next().move2key(handle, key, err); });
}

extern "C" kvs_buf *kvs_getvalue(uint32_t handle, int *err)
{
    if (!g_tap.on)
        return next().getvalue(handle, err);
    return tap_outside(g_tap.store_read, phase_after_store_read(),
                       [&] { return next().getvalue(handle, err); });
}

extern "C" kvs_buf *kvs_move2location(uint32_t handle, uint32_t where, int *err)
{
    if (!g_tap.on)
        return next().move2location(handle, where, err);
    return tap_outside(g_tap.store_read, phase_after_store_read(),
                       [&] { return next().move2location(handle, where, err); });
}

extern "C" int orvex_tcam_init(uint8_t inst, uint32_t tbl_type, uint32_t key_width_bits,
                               orvex_validate_cb validate, void *validate_handle,
                               orvex_camindex_cb camindex, void *camindex_handle,
                               uint32_t restore, orvex_entry_cb restore_cb, void *restore_handle,
                               uint32_t debug_elem, uint32_t debug_level)
{
    const auto call = [&] {
        return next().engine_init(inst, tbl_type, key_width_bits, validate, validate_handle,
                                  camindex, camindex_handle, restore, restore_cb, restore_handle,
                                  debug_elem, debug_level);
    };
    if (!g_tap.on)
        return call();
    tap_charge();
    g_tap.phase = kEngineInit;
    const int rc = call();
    tap_charge();
    g_tap.phase = kReconcile;
    return rc;
}

extern "C" int orvex_tcam_delete_entry(tbl_params *p, uint32_t *sloc)
{
    if (!g_tap.on)
        return next().engine_delete(p, sloc);
    return tap_outside(g_tap.engine_delete, g_tap.phase,
                       [&] { return next().engine_delete(p, sloc); });
}

// ---- allocation ------------------------------------------------------------------

extern "C" void *malloc(std::size_t size)
{
    void *p = __libc_malloc(size);
    note_alloc(__builtin_return_address(0), p, size);
    return p;
}

extern "C" void *calloc(std::size_t count, std::size_t size)
{
    void *p = __libc_calloc(count, size);
    note_alloc(__builtin_return_address(0), p, count * size);
    return p;
}

extern "C" void *realloc(void *ptr, std::size_t size)
{
    note_free(ptr);
    void *p = __libc_realloc(ptr, size);
    note_alloc(__builtin_return_address(0), p, size);
    return p;
}

extern "C" void free(void *ptr)
{
    note_free(ptr);
    __libc_free(ptr);
}

namespace
{
void *new_block(std::size_t size, const void *caller)
{
    void *p = __libc_malloc(size == 0 ? 1 : size);
    note_alloc(caller, p, size);
    return p;
}
} // namespace

void *operator new(std::size_t size)
{
    void *p = new_block(size, __builtin_return_address(0));
    if (p == nullptr)
        throw std::bad_alloc();
    return p;
}
void *operator new[](std::size_t size)
{
    void *p = new_block(size, __builtin_return_address(0));
    if (p == nullptr)
        throw std::bad_alloc();
    return p;
}
void *operator new(std::size_t size, const std::nothrow_t &) noexcept
{
    return new_block(size, __builtin_return_address(0));
}
void *operator new[](std::size_t size, const std::nothrow_t &) noexcept
{
    return new_block(size, __builtin_return_address(0));
}
void operator delete(void *ptr) noexcept
{
    free(ptr);
}
void operator delete[](void *ptr) noexcept
{
    free(ptr);
}
void operator delete(void *ptr, std::size_t) noexcept
{
    free(ptr);
}
void operator delete[](void *ptr, std::size_t) noexcept
{
    free(ptr);
}

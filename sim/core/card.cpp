// card.cpp - the simulated card of this process: state directory, profile,
// hardware image and search indexes, behind the C calls of sim_hw.h and sim_card.h.
#include <atomic>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <fstream>
#include <memory>
#include <mutex>
#include <optional>
#include <sstream>
#include <fcntl.h>
#include <sys/stat.h>

#include "image.hpp"
#include "profile.hpp"
#include "sim_card.h"
#include "sim_hw.h"
#include "sys_util.hpp"
#include "tcam_index.hpp"

namespace tcamwrap::sim {
namespace {

constexpr uint32_t kFibType = 3;
constexpr uint32_t kAcliType = 1;

// mkdir -p: 0, or -1 with errno.
int make_dirs(const std::string &path)
{
    for (std::size_t pos = 1; pos <= path.size(); ++pos) {
        if (pos != path.size() && path[pos] != '/')
            continue;
        std::string part = path.substr(0, pos);
        if (::mkdir(part.c_str(), 0755) != 0 && errno != EEXIST)
            return -1;
    }
    struct stat st {};
    if (::stat(path.c_str(), &st) != 0)
        return -1;
    return S_ISDIR(st.st_mode) ? 0 : fail_with(ENOTDIR);
}

std::string absolute(const char *setting)
{
    std::string path = (setting != nullptr && *setting != '\0') ? setting : SIM_STATE_DEFAULT;
    if (path.front() == '/')
        return path;
    char cwd[4096];
    if (::getcwd(cwd, sizeof cwd) == nullptr)
        return path;
    std::string base(cwd);
    if (path.starts_with("./"))
        path.erase(0, 2);
    return base + "/" + path;
}

std::optional<std::string> read_file(const std::string &path)
{
    std::ifstream in(path);
    if (!in.is_open())
        return std::nullopt;
    std::stringstream text;
    text << in.rdbuf();
    return text.str();
}

// Writes the whole text under a temporary name and renames it into place.
std::string write_file_atomically(const std::string &path, const std::string &text)
{
    std::string tmp = path + ".tmp." + std::to_string(::getpid());
    {
        std::ofstream out(tmp, std::ios::trunc);
        out << text << '\n';
        if (!out.flush())
            return "cannot write " + tmp;
    }
    if (::rename(tmp.c_str(), path.c_str()) != 0)
        return "cannot create " + path + ": " + std::strerror(errno);
    return {};
}

void warn(const std::string &text)
{
    std::fprintf(stderr, "tcamwrap-sim: %s\n", text.c_str());
}

class Card {
public:
    std::string open(const std::string &dir);

    const Profile &profile() const { return profile_; }

    // The table of a valid instance and table type, or nullptr.
    const TableView *table(uint8_t inst, uint32_t tbl_type) const
    {
        if (inst >= profile_.insts)
            return nullptr;
        const TableView &t = image_.table(inst, table_index(tbl_type));
        return t ? &t : nullptr;
    }

    // Runs mutate() on one TCAM location and keeps this process's index current.
    template <typename Mutate>
    void change_location(uint8_t inst, uint32_t tbl_type, uint32_t loc, Mutate mutate)
    {
        const TableView &t = *table(inst, tbl_type);
        TcamIndex &idx = index_[inst][table_index(tbl_type)];
        std::atomic_ref<uint64_t> gen(*t.generation);
        bool keep = idx.current(gen.load(std::memory_order_acquire));
        if (keep && t.valid[loc] != 0)
            idx.remove(t, loc);
        mutate(t);
        uint64_t now = gen.fetch_add(1, std::memory_order_acq_rel) + 1;
        if (keep) {
            if (t.valid[loc] != 0)
                idx.add(t, loc);
            idx.set_generation(now);
        }
    }

    std::optional<uint32_t> lookup(uint8_t inst, uint32_t tbl_type, const uint8_t *search)
    {
        const TableView &t = *table(inst, tbl_type);
        TcamIndex &idx = index_[inst][table_index(tbl_type)];
        uint64_t gen = std::atomic_ref<uint64_t>(*t.generation).load(std::memory_order_acquire);
        if (!idx.current(gen))
            idx.rebuild(t, gen);
        return idx.lookup(t, {search, t.half_bytes()});
    }

private:
    std::string load_profile(const std::string &dir);

    Profile profile_;
    Image image_;
    std::array<std::array<TcamIndex, kNumTableTypes>, SIM_MAX_INSTS> index_;
};

// The saved profile rules; a new card takes TCAMWRAP_SIM_PROFILE (or the
// defaults) and saves it.
std::string Card::load_profile(const std::string &dir)
{
    const std::string saved_path = dir + "/profile";
    const char *setting = std::getenv(SIM_PROFILE_ENV);
    if (auto saved = read_file(saved_path)) {
        Profile saved_profile;
        if (auto err = parse_profile(*saved, saved_profile); !err.empty()) {
            errno = EINVAL;
            return saved_path + ": " + err + " (delete the state directory to reset)";
        }
        Profile wanted;
        if (setting != nullptr && *setting != '\0' &&
            profile_from_setting(setting, wanted).empty() && !(wanted == saved_profile))
            warn(dir + " keeps its card (" + format_profile(saved_profile) + "); " +
                 SIM_PROFILE_ENV + " is ignored until the directory is deleted");
        profile_ = saved_profile;
        return {};
    }
    Profile fresh;
    if (auto err = profile_from_setting(setting, fresh); !err.empty()) {
        errno = EINVAL;
        return std::string(SIM_PROFILE_ENV) + ": " + err;
    }
    if (auto err = write_file_atomically(saved_path, format_profile(fresh)); !err.empty())
        return err;
    profile_ = fresh;
    return {};
}

std::string Card::open(const std::string &dir)
{
    FileLock lock(dir + "/lock");
    if (!lock)
        return "cannot lock " + dir + "/lock: " + std::strerror(errno);
    if (auto err = load_profile(dir); !err.empty())
        return err;
    return image_.open_or_create(dir + "/hw.img", profile_);
}

struct Process {
    std::mutex mu;
    std::string dir;  // empty until resolved
    std::unique_ptr<Card> card;
    std::string last_error;  // reported once, not on every call
    // The card's client lock while this process holds it. An fcntl record lock:
    // the kernel drops it when the process dies, however it dies, and a forked
    // child does not inherit it.
    UniqueFd claim;
    bool refusal_reported = false;
};

Process &process()
{
    static Process p;
    return p;
}

// Keeps the text of a failure for sim_card_error(); with report, also says it on
// stderr, once for the same text. Explicit calls of sim_card.h do not report:
// their caller does.
void note_error(Process &p, const std::string &err, bool report)
{
    const int saved = errno != 0 ? errno : EIO;
    if (report && err != p.last_error)
        warn(err);
    p.last_error = err;
    errno = saved;
}

const std::string *state_dir_locked(Process &p, bool report = true)
{
    if (p.dir.empty()) {
        std::string dir = absolute(std::getenv(SIM_STATE_ENV));
        if (make_dirs(dir) != 0) {
            note_error(p, "cannot create state directory " + dir + ": " + std::strerror(errno),
                       report);
            return nullptr;
        }
        p.dir = dir;
    }
    return &p.dir;
}

Card *card_locked(Process &p, bool report = true)
{
    if (p.card)
        return p.card.get();
    const std::string *dir = state_dir_locked(p, report);
    if (dir == nullptr)
        return nullptr;
    auto card = std::make_unique<Card>();
    if (auto err = card->open(*dir); !err.empty()) {
        note_error(p, err, report);
        return nullptr;
    }
    p.last_error.clear();
    p.card = std::move(card);
    return p.card.get();
}

std::string claim_path(const std::string &dir)
{
    return dir + "/" + SIM_CLIENT_LOCK_FILE;
}

// The pid of the process whose client lock covers fd's file, 0 when none.
pid_t lock_holder(int fd)
{
    struct flock probe {};
    probe.l_type = F_WRLCK;
    probe.l_whence = SEEK_SET;
    if (::fcntl(fd, F_GETLK, &probe) != 0)
        return -1;
    return probe.l_type == F_UNLCK ? 0 : probe.l_pid;
}

// 0 when this process holds (or now takes) the card's client lock; -1 with
// errno EBUSY when another process holds it, and *holder set to its pid.
int claim_locked(Process &p, pid_t *holder)
{
    if (p.claim)
        return 0;
    const std::string *dir = state_dir_locked(p, false);
    if (dir == nullptr)
        return -1;
    UniqueFd fd(::open(claim_path(*dir).c_str(), O_RDWR | O_CREAT | O_CLOEXEC, 0644));
    if (!fd)
        return -1;
    struct flock whole {};
    whole.l_type = F_WRLCK;
    whole.l_whence = SEEK_SET;
    if (::fcntl(fd.get(), F_SETLK, &whole) == 0) {
        p.claim = std::move(fd);
        p.refusal_reported = false;
        return 0;
    }
    if (errno != EACCES && errno != EAGAIN)
        return -1;
    if (holder != nullptr)
        *holder = lock_holder(fd.get());
    return fail_with(EBUSY);
}

// Runs fn(card) under the process lock, or returns on_error when there is no card.
template <typename Fn, typename R>
R with_card(R on_error, Fn fn)
{
    Process &p = process();
    std::lock_guard lock(p.mu);
    Card *c = card_locked(p);
    return c != nullptr ? fn(*c) : on_error;
}

// with_card for calls that change the card: the first makes this process the
// card's client, and a card held by another process is refused with EBUSY.
template <typename Fn, typename R>
R with_client_card(R on_error, Fn fn)
{
    Process &p = process();
    std::lock_guard lock(p.mu);
    pid_t holder = 0;
    if (claim_locked(p, &holder) != 0) {
        const int err = errno;
        if (err == EBUSY && !p.refusal_reported)
            warn("the card in " + p.dir + " has a client already (process " +
                 std::to_string(holder) + "): one client process per card");
        p.refusal_reported = err == EBUSY;
        errno = err;
        return on_error;
    }
    Card *c = card_locked(p);
    return c != nullptr ? fn(*c) : on_error;
}

struct MemRef {
    uint8_t *base;
    uint32_t words;
    uint32_t width;
};

std::optional<MemRef> memory_of(const TableView &t, uint32_t mem)
{
    switch (mem) {
    case SIM_MEM_SSRAM: return MemRef{t.ssram, t.size, SIM_RESULT_BYTES};
    case SIM_MEM_FLOW: return MemRef{t.flow, (t.size + 1) / 2, SIM_RESULT_BYTES};
    case SIM_MEM_ACL_PRIO: return MemRef{t.acl_prio, t.size, 1};
    default: return std::nullopt;
    }
}

bool in_range(uint32_t start, uint32_t count, uint32_t words)
{
    return start <= words && count <= words - start;
}

// The word of the entry at loc that the pipeline returns (see sim_hw_lookup_result).
const uint8_t *result_word(const TableView &t, uint32_t tbl_type, uint32_t loc)
{
    if (tbl_type == kAcliType && t.acl_prio[loc] == 0)
        return t.flow + std::size_t{loc / 2} * SIM_RESULT_BYTES;
    return t.ssram + std::size_t{loc} * SIM_RESULT_BYTES;
}

}  // namespace
}  // namespace tcamwrap::sim

using namespace tcamwrap::sim;

extern "C" {

const char *sim_state_dir(void)
{
    Process &p = process();
    std::lock_guard lock(p.mu);
    const std::string *dir = state_dir_locked(p, false);
    return dir != nullptr ? dir->c_str() : nullptr;
}

int sim_card_open(void)
{
    Process &p = process();
    std::lock_guard lock(p.mu);
    return card_locked(p, false) != nullptr ? 0 : -1;
}

const char *sim_card_error(void)
{
    Process &p = process();
    std::lock_guard lock(p.mu);
    return p.last_error.c_str();
}

void sim_card_close(void)
{
    Process &p = process();
    std::lock_guard lock(p.mu);
    p.card.reset();
    p.claim.reset();
    p.refusal_reported = false;
    p.dir.clear();
    p.last_error.clear();
}

int sim_card_claim(long *holder)
{
    Process &p = process();
    std::lock_guard lock(p.mu);
    pid_t pid = 0;
    const int rc = claim_locked(p, &pid);
    if (holder != nullptr)
        *holder = rc == 0 ? static_cast<long>(::getpid()) : static_cast<long>(pid);
    return rc;
}

long sim_card_holder(void)
{
    Process &p = process();
    std::lock_guard lock(p.mu);
    if (p.claim)
        return static_cast<long>(::getpid());
    const std::string *dir = state_dir_locked(p, false);
    if (dir == nullptr)
        return -1;
    UniqueFd fd(::open(claim_path(*dir).c_str(), O_RDONLY | O_CLOEXEC));
    if (!fd)
        return errno == ENOENT ? 0 : -1;
    return static_cast<long>(lock_holder(fd.get()));
}

int sim_card_profile_text(char *buf, uint32_t size)
{
    if (buf == nullptr || size == 0)
        return fail_with(EINVAL);
    return with_card(-1, [buf, size](Card &c) {
        std::string text = format_profile(c.profile());
        if (text.size() >= size)
            return fail_with(ERANGE);
        std::memcpy(buf, text.c_str(), text.size() + 1);
        return 0;
    });
}

uint32_t sim_card_num_insts(void)
{
    return with_card(0u, [](Card &c) { return c.profile().insts; });
}

uint32_t sim_card_table_size(uint32_t tbl_type)
{
    int t = table_index(tbl_type);
    if (t < 0)
        return 0;
    return with_card(0u, [t](Card &c) { return c.profile().size[t]; });
}

uint32_t sim_card_tcam_kind(uint32_t tbl_type)
{
    int t = table_index(tbl_type);
    if (t < 0)
        return SIM_KIND_TCAM3;
    return with_card(SIM_KIND_TCAM3, [t](Card &c) { return c.profile().kind[t]; });
}

uint32_t sim_key_bytes(uint32_t tbl_type)
{
    if (table_index(tbl_type) < 0)
        return 0;
    return tbl_type == kFibType ? 18u : 36u;
}

int sim_hw_tcam_write(uint8_t inst, uint32_t tbl_type, uint32_t loc, const uint8_t *key,
                      uint16_t prio)
{
    return with_client_card(-1, [=](Card &c) {
        const TableView *t = c.table(inst, tbl_type);
        if (t == nullptr || loc >= t->size || key == nullptr)
            return fail_with(EINVAL);
        c.change_location(inst, tbl_type, loc, [=](const TableView &v) {
            // The valid byte goes last, so a process killed mid-write leaves the
            // location invalid rather than live with a half-written key.
            std::atomic_ref<uint8_t> valid(v.valid[loc]);
            valid.store(0, std::memory_order_release);
            std::memcpy(v.key(loc).data(), key, v.key_bytes);
            v.prio[loc] = prio;
            valid.store(1, std::memory_order_release);
        });
        return 0;
    });
}

int sim_hw_tcam_clear(uint8_t inst, uint32_t tbl_type, uint32_t loc)
{
    return with_client_card(-1, [=](Card &c) {
        const TableView *t = c.table(inst, tbl_type);
        if (t == nullptr || loc >= t->size)
            return fail_with(EINVAL);
        c.change_location(inst, tbl_type, loc, [=](const TableView &v) {
            std::atomic_ref<uint8_t>(v.valid[loc]).store(0, std::memory_order_release);
            std::memset(v.key(loc).data(), 0, v.key_bytes);
            v.prio[loc] = 0;
        });
        return 0;
    });
}

int sim_hw_tcam_get(uint8_t inst, uint32_t tbl_type, uint32_t loc, uint8_t *valid,
                    uint8_t *key, uint16_t *prio)
{
    return with_card(-1, [=](Card &c) {
        const TableView *t = c.table(inst, tbl_type);
        if (t == nullptr || loc >= t->size)
            return fail_with(EINVAL);
        if (valid != nullptr)
            *valid = std::atomic_ref<uint8_t>(t->valid[loc]).load(std::memory_order_acquire);
        if (key != nullptr)
            std::memcpy(key, t->key(loc).data(), t->key_bytes);
        if (prio != nullptr)
            *prio = t->prio[loc];
        return 0;
    });
}

int sim_hw_tcam_get_range(uint8_t inst, uint32_t tbl_type, uint32_t first, uint32_t count,
                          uint8_t *valid, uint8_t *keys, uint16_t *prio)
{
    return with_card(-1, [=](Card &c) {
        const TableView *t = c.table(inst, tbl_type);
        if (t == nullptr || first > t->size || count > t->size - first || valid == nullptr ||
            keys == nullptr || prio == nullptr)
            return fail_with(EINVAL);
        for (uint32_t i = 0; i < count; ++i)
            valid[i] = std::atomic_ref<uint8_t>(t->valid[first + i]).load(std::memory_order_acquire);
        std::memcpy(keys, t->key(first).data(), std::size_t{count} * t->key_bytes);
        std::memcpy(prio, t->prio + first, std::size_t{count} * sizeof(uint16_t));
        return 0;
    });
}

int sim_hw_lookup(uint8_t inst, uint32_t tbl_type, const uint8_t *search, uint32_t *loc)
{
    return with_card(-1, [=](Card &c) {
        if (c.table(inst, tbl_type) == nullptr || search == nullptr || loc == nullptr)
            return fail_with(EINVAL);
        auto found = c.lookup(inst, tbl_type, search);
        if (!found)
            return 0;
        *loc = *found;
        return 1;
    });
}

int sim_hw_lookup_result(uint8_t inst, uint32_t tbl_type, const uint8_t *search,
                         uint32_t *loc, uint8_t result[SIM_RESULT_BYTES])
{
    return with_card(-1, [=](Card &c) {
        const TableView *t = c.table(inst, tbl_type);
        if (t == nullptr || search == nullptr || loc == nullptr || result == nullptr)
            return fail_with(EINVAL);
        auto found = c.lookup(inst, tbl_type, search);
        if (!found)
            return 0;
        *loc = *found;
        std::memcpy(result, result_word(*t, tbl_type, *found), SIM_RESULT_BYTES);
        return 1;
    });
}

uint32_t sim_hw_mem_words(uint32_t tbl_type, uint32_t mem)
{
    return with_card(0u, [=](Card &c) {
        const TableView *t = c.table(0, tbl_type);
        auto m = t != nullptr ? memory_of(*t, mem) : std::nullopt;
        return m ? m->words : 0u;
    });
}

uint32_t sim_hw_mem_width(uint32_t mem)
{
    switch (mem) {
    case SIM_MEM_SSRAM:
    case SIM_MEM_FLOW: return SIM_RESULT_BYTES;
    case SIM_MEM_ACL_PRIO: return 1;
    default: return 0;
    }
}

int sim_hw_mem_read(uint8_t inst, uint32_t tbl_type, uint32_t mem, uint32_t start,
                    uint32_t count, uint8_t *out)
{
    return with_card(-1, [=](Card &c) {
        const TableView *t = c.table(inst, tbl_type);
        auto m = t != nullptr ? memory_of(*t, mem) : std::nullopt;
        if (!m || out == nullptr || !in_range(start, count, m->words))
            return fail_with(EINVAL);
        std::memcpy(out, m->base + std::size_t{start} * m->width, std::size_t{count} * m->width);
        return 0;
    });
}

int sim_hw_mem_write(uint8_t inst, uint32_t tbl_type, uint32_t mem, uint32_t start,
                     uint32_t count, const uint8_t *in)
{
    return with_client_card(-1, [=](Card &c) {
        const TableView *t = c.table(inst, tbl_type);
        auto m = t != nullptr ? memory_of(*t, mem) : std::nullopt;
        if (!m || in == nullptr || !in_range(start, count, m->words))
            return fail_with(EINVAL);
        std::memcpy(m->base + std::size_t{start} * m->width, in, std::size_t{count} * m->width);
        return 0;
    });
}

uint32_t sim_hw_tcam_count(uint8_t inst, uint32_t tbl_type)
{
    return with_card(0u, [=](Card &c) {
        const TableView *t = c.table(inst, tbl_type);
        uint32_t n = 0;
        for (uint32_t loc = 0; t != nullptr && loc < t->size; ++loc)
            n += t->valid[loc] != 0 ? 1 : 0;
        return n;
    });
}

}  // extern "C"

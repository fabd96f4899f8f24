// image.cpp - layout, creation and mapping of the hardware image file.
#include "image.hpp"

#include <cstdio>
#include <cstring>
#include <sys/stat.h>

namespace tcamwrap::sim {
namespace {

constexpr char kMagic[8] = {'T', 'W', 'S', 'I', 'M', 'H', 'W', '1'};
constexpr uint32_t kVersion = 1;
constexpr uint64_t kHeaderBytes = 4096;
constexpr uint64_t kAlign = 64;

// Fixed at the start of the file; the memories follow at kHeaderBytes.
struct ImageHeader {
    char magic[8];
    uint32_t version;
    uint32_t insts;
    uint32_t size[kNumTableTypes];
    uint32_t kind[kNumTableTypes];
    uint64_t total_bytes;
    uint64_t generation[SIM_MAX_INSTS][kNumTableTypes];
};
static_assert(sizeof(ImageHeader) <= kHeaderBytes);

struct TableOffsets {
    uint64_t valid, prio, keys, ssram, flow, acl_prio;
};

struct Layout {
    std::array<std::array<TableOffsets, kNumTableTypes>, SIM_MAX_INSTS> off{};
    uint64_t total = 0;
};

uint64_t align_up(uint64_t v) { return (v + kAlign - 1) / kAlign * kAlign; }

Layout layout_of(const Profile &p)
{
    Layout l;
    uint64_t at = kHeaderBytes;
    auto take = [&at](uint64_t bytes) {
        uint64_t here = at;
        at = align_up(at + bytes);
        return here;
    };
    for (uint32_t inst = 0; inst < p.insts; ++inst) {
        for (uint32_t t = 0; t < kNumTableTypes; ++t) {
            uint64_t n = p.size[t];
            TableOffsets &o = l.off[inst][t];
            o.valid = take(n);
            o.prio = take(2 * n);
            o.keys = take(n * sim_key_bytes(t + 1));
            o.ssram = take(n * SIM_RESULT_BYTES);
            o.flow = take((n + 1) / 2 * SIM_RESULT_BYTES);
            o.acl_prio = take(n);
        }
    }
    l.total = at;
    return l;
}

ImageHeader header_of(const Profile &p, uint64_t total)
{
    ImageHeader h{};
    std::memcpy(h.magic, kMagic, sizeof kMagic);
    h.version = kVersion;
    h.insts = p.insts;
    for (uint32_t t = 0; t < kNumTableTypes; ++t) {
        h.size[t] = p.size[t];
        h.kind[t] = p.kind[t];
    }
    h.total_bytes = total;
    return h;
}

// Writes a zero image under a temporary name and renames it into place, so that a
// process dying half-way never leaves a short image behind.
std::string create_image(const std::string &path, const Profile &p, uint64_t total)
{
    std::string tmp = path + ".tmp." + std::to_string(::getpid());
    UniqueFd fd(::open(tmp.c_str(), O_RDWR | O_CREAT | O_TRUNC | O_CLOEXEC, 0644));
    if (!fd)
        return "cannot create " + tmp + ": " + std::strerror(errno);
    ImageHeader h = header_of(p, total);
    if (::ftruncate(fd.get(), static_cast<off_t>(total)) != 0 ||
        ::pwrite(fd.get(), &h, sizeof h, 0) != static_cast<ssize_t>(sizeof h) ||
        ::rename(tmp.c_str(), path.c_str()) != 0) {
        int err = errno;
        ::unlink(tmp.c_str());
        errno = err;
        return "cannot create " + path + ": " + std::strerror(err);
    }
    return {};
}

std::string check_header(const ImageHeader &h, const Profile &p, uint64_t total)
{
    ImageHeader want = header_of(p, total);
    bool same = std::memcmp(h.magic, want.magic, sizeof h.magic) == 0 &&
                h.version == want.version && h.insts == want.insts &&
                std::memcmp(h.size, want.size, sizeof h.size) == 0 &&
                std::memcmp(h.kind, want.kind, sizeof h.kind) == 0 &&
                h.total_bytes == want.total_bytes;
    return same ? std::string{} : std::string("does not match the saved profile");
}

}  // namespace

std::string Image::open_or_create(const std::string &path, const Profile &profile)
{
    Layout l = layout_of(profile);
    struct stat st {};
    if (::stat(path.c_str(), &st) != 0) {
        if (errno != ENOENT)
            return path + ": " + std::strerror(errno);
        if (auto err = create_image(path, profile, l.total); !err.empty())
            return err;
    }
    UniqueFd fd(::open(path.c_str(), O_RDWR | O_CLOEXEC));
    if (!fd || ::fstat(fd.get(), &st) != 0)
        return path + ": " + std::strerror(errno);
    if (static_cast<uint64_t>(st.st_size) != l.total) {
        errno = EINVAL;
        return path + ": size does not match the saved profile (delete the state directory to reset)";
    }
    void *addr = ::mmap(nullptr, l.total, PROT_READ | PROT_WRITE, MAP_SHARED, fd.get(), 0);
    if (addr == MAP_FAILED)
        return path + ": mmap: " + std::strerror(errno);
    Mapping map(addr, l.total);
    auto *hdr = reinterpret_cast<ImageHeader *>(map.data());
    if (auto err = check_header(*hdr, profile, l.total); !err.empty()) {
        errno = EINVAL;
        return path + ": " + err + " (delete the state directory to reset)";
    }

    std::byte *base = map.data();
    auto at = [base](uint64_t off) { return reinterpret_cast<uint8_t *>(base + off); };
    tables_ = {};
    for (uint32_t inst = 0; inst < profile.insts; ++inst) {
        for (uint32_t t = 0; t < kNumTableTypes; ++t) {
            const TableOffsets &o = l.off[inst][t];
            TableView &v = tables_[inst][t];
            v.size = profile.size[t];
            v.key_bytes = sim_key_bytes(t + 1);
            v.valid = at(o.valid);
            v.prio = reinterpret_cast<uint16_t *>(at(o.prio));
            v.keys = at(o.keys);
            v.ssram = at(o.ssram);
            v.flow = at(o.flow);
            v.acl_prio = at(o.acl_prio);
            v.generation = &hdr->generation[inst][t];
        }
    }
    map_ = std::move(map);
    return {};
}

const TableView &Image::table(uint32_t inst, int t) const
{
    static const TableView none{};
    if (inst >= SIM_MAX_INSTS || t < 0 || t >= static_cast<int>(kNumTableTypes))
        return none;
    return tables_[inst][t];
}

}  // namespace tcamwrap::sim

// card.cpp - the simulated card under the library benchmark (see card.hpp).
#include "card.hpp"

#include <cstdlib>
#include <filesystem>
#include <stdexcept>

#include <unistd.h>

#include "orvex_sim.h"
#include "sim_card.h"
#include "sim_hw.h"
#include "sim_kvs.h"

namespace fs = std::filesystem;

namespace tcamwrap::bench
{
namespace
{

constexpr uint32_t kFacility = 29;

// The benchmark's temporary directory; removed when the program ends.
class Workdir
{
  public:
    Workdir()
    {
        const fs::path base = fs::temp_directory_path() / "tcamwrap-bench-XXXXXX";
        std::string tmpl = base.string();
        if (::mkdtemp(tmpl.data()) == nullptr)
            throw std::runtime_error("cannot create " + tmpl);
        root_ = tmpl;
    }
    ~Workdir()
    {
        std::error_code ec;
        fs::remove_all(root_, ec);
    }
    const fs::path &root() const { return root_; }

  private:
    fs::path root_;
};

const fs::path &workdir()
{
    static Workdir dir;
    return dir.root();
}

kvs_buf *key_prefix()
{
    static uint8_t bytes[] = {'b', 'e', 'n', 'c', 'h', '/'};
    static kvs_buf prefix = {bytes, sizeof bytes};
    return &prefix;
}

} // namespace

std::string CardShape::profile() const
{
    const std::string n = std::to_string(size);
    return "insts=" + std::to_string(insts) + ",fib=" + n + ",acli=" + n + ",aclo=" + n +
           ",fib_kind=" + (fib_tcam3 ? "tcam3" : "orvex") + ",acli_kind=orvex,aclo_kind=orvex";
}

std::string fresh_dir(const std::string &name)
{
    const fs::path dir = workdir() / name;
    fs::remove_all(dir);
    fs::create_directories(dir);
    return dir.string();
}

void sim_forget()
{
    sim_kvs_close();
    sim_card_close();
}

void sim_use(const std::string &dir, const CardShape &shape)
{
    sim_forget();
    ::setenv(SIM_STATE_ENV, dir.c_str(), 1);
    ::setenv(SIM_PROFILE_ENV, shape.profile().c_str(), 1);
}

void library_forget()
{
    for (auto &per_inst : tcamwrap_gl_db.tcam_info)
        for (tcam_info *&info : per_inst) {
            if (info == nullptr)
                continue;
            std::free(info->lmt);
            std::free(info->rlmt);
            std::free(info->sloc_valid);
            std::free(info);
            info = nullptr;
        }
}

int library_start(uint32_t init_type)
{
    static const int32_t types[] = {TCAMWRAP_TBL_ACLI, TCAMWRAP_TBL_ACLO, TCAMWRAP_TBL_FIB};
    library_forget();
    return tcamwrap_init(types, 3, kStoreHandle, key_prefix(), init_type, 0, 0, kFacility);
}

uint64_t library_mapped()
{
    uint64_t mapped = 0;
    for (const auto &per_inst : tcamwrap_gl_db.tcam_info)
        for (const tcam_info *info : per_inst)
            if (info != nullptr)
                for (uint32_t loc = 0; loc < info->lmt_sz; ++loc)
                    mapped += info->lmt[loc] != TCAMWRAP_INVALID_LOC;
    return mapped;
}

std::vector<uint32_t> library_maps()
{
    std::vector<uint32_t> maps;
    for (const auto &per_inst : tcamwrap_gl_db.tcam_info)
        for (const tcam_info *info : per_inst)
            if (info != nullptr)
                maps.insert(maps.end(), info->lmt, info->lmt + info->lmt_sz);
    return maps;
}

uint64_t hw_entries(const CardShape &shape)
{
    uint64_t n = 0;
    for (uint8_t inst = 0; inst < shape.insts; ++inst)
        for (uint32_t type : kTableTypes)
            n += sim_hw_tcam_count(inst, type);
    return n;
}

std::string engine_check(const CardShape &shape)
{
    for (uint8_t inst = 0; inst < shape.insts; ++inst)
        for (uint32_t type : kTableTypes) {
            if (type == TCAMWRAP_TBL_FIB && shape.fib_tcam3)
                continue;
            char why[256] = "";
            if (orvex_sim_check(inst, type, why, sizeof why) != 0)
                return "inst " + std::to_string(inst) + " table " + std::to_string(type) + ": " +
                       why;
        }
    return {};
}

void copy_card(const std::string &from, const std::string &to)
{
    sim_forget();
    fs::remove_all(to);
    fs::create_directories(to);
    for (const char *name : {"profile", "hw.img", "kvs"})
        if (fs::exists(fs::path(from) / name))
            fs::copy(fs::path(from) / name, fs::path(to) / name, fs::copy_options::recursive);
}

void clear_hardware(const std::string &dir)
{
    sim_forget();
    fs::remove(fs::path(dir) / "hw.img");
}

void clear_store(const std::string &dir)
{
    sim_forget();
    fs::remove_all(fs::path(dir) / "kvs");
}

} // namespace tcamwrap::bench

/* Diagnostics: the LMT and TCAM dumps read back from a socket pair, and the
 * parity-error correction with its reply checked byte by byte. */
#include "test_support.h"

#include <sys/socket.h>
#include <unistd.h>

namespace tw {
namespace {

/* The reading end of a socket pair; the library writes into fd(). */
class Sock {
public:
    Sock() { ok_ = socketpair(AF_UNIX, SOCK_STREAM, 0, fds_) == 0; }
    ~Sock()
    {
        if (ok_)
            close(fds_[0]), close(fds_[1]);
    }
    bool ok() const { return ok_; }
    int fd() const { return fds_[0]; }

    /* Everything sent so far, split at the NUL bytes. The last piece must be
     * complete (followed by its NUL); a trailing fragment is reported as is. */
    std::vector<std::string> pieces()
    {
        std::string all;
        char buf[4096];
        for (;;) {
            ssize_t n = recv(fds_[1], buf, sizeof buf, MSG_DONTWAIT);
            if (n <= 0)
                break;
            all.append(buf, size_t(n));
        }
        std::vector<std::string> out = split_at_nul(all);
        if (out.back().empty())
            out.pop_back();
        else
            out.back() = "<no NUL after>" + out.back();
        return out;
    }

private:
    int fds_[2] = {-1, -1};
    bool ok_ = false;
};

using Pieces = std::vector<std::string>;

Pieces utilisation(const fake::Stats &b0, const fake::Stats &b1)
{
    Pieces p = {"Tcam Utilization\t|\t Segments\n", "bank\tentries\tgroups\t| open\tfull\tfree\ttotal\n",
                "------------------------------------------------------\t\n"};
    const fake::Stats *s[2] = {&b0, &b1};
    for (int bank = 0; bank < 2; ++bank)
        p.push_back(fmt("%d\t%u\t%u\t| %u\t%u\t%u\t%u\n", bank, s[bank]->entries, s[bank]->groups, s[bank]->open,
                        s[bank]->full, s[bank]->free, s[bank]->total));
    p.push_back("\n");
    return p;
}

Pieces concat(Pieces a, const Pieces &b)
{
    a.insert(a.end(), b.begin(), b.end());
    return a;
}

class Diag : public LibTest {
protected:
    void SetUp() override
    {
        LibTest::SetUp();
        if (!sock.ok())
            GTEST_SKIP() << "no socketpair on this host";
    }
    Sock sock;
};

/* ---- tcamwrap_lmt_dump ----------------------------------------------------------------- */

TEST_F(Diag, FibLmtDumpIsExactlyTheDescribedPieces)
{
    orvex(FIB);
    Table &t = table(0, FIB, 64);
    t.map(0, 10);
    t.map(5, 3);
    const fake::Stats b0{1, 2, 3, 4, 5, 6}, b1{70, 80, 90, 100, 110, 120};
    fake::set_stats(0, b0);
    fake::set_stats(1, b1);
    tbl_params p = params(0, FIB, 1, 0);
    tcamwrap_lmt_dump(sock.fd(), &p);
    Pieces want = {"Instance: 0 Tbl type: 3 LMT size: 64\n\n", "Loc\tSLoc\n", "------------\n", "   0\t   a\n",
                   "   5\t   3\n", "\nNumber of entries: 2\n", "----------------------\n",
                   "\n"};
    EXPECT_EQ(sock.pieces(), concat(want, utilisation(b0, b1)));
    EXPECT_EQ(fake::calls_of("orvex_tcam_get_stats").size(), 2u);
}

TEST_F(Diag, AclLmtDumpShowsTheHrrIndex)
{
    orvex(ACLI);
    Table &t = table(1, ACLI, 128);
    t.map(1, 0x21);
    t.map(0x7f, 0x7e);
    tbl_params p = params(1, ACLI, 1, 0);
    tcamwrap_lmt_dump(sock.fd(), &p);
    Pieces want = {"Instance: 1 Tbl type: 1 LMT size: 128\n\n", "Loc\tSLoc\t(HRR Index)\n",
                   "---------------------------\n", "   1\t  21\t(  42)\n", "  7f\t  7e\t(  fc)\n",
                   "\nNumber of entries: 2\n", "----------------------\n", "\n"};
    EXPECT_EQ(sock.pieces(), concat(want, utilisation({}, {})));
}

TEST_F(Diag, DumpsOfTablesThatAreNotThere)
{
    orvex(ACLI);
    table(0, ACLI, 8);
    tbl_params tcam3 = params(0, FIB, 1, 0), unmanaged = params(1, ACLI, 1, 0);
    level(7);
    for (tbl_params *p : {(tbl_params *)nullptr, &tcam3, &unmanaged}) {
        const size_t traced = fake::hist_events().size();
        tcamwrap_lmt_dump(sock.fd(), p);
        tcamwrap_orvex_tcam_dump(sock.fd(), p, 1);
        EXPECT_TRUE(sock.pieces().empty());
        EXPECT_TRUE(fake::calls_with_prefix("orvex_").empty());
        EXPECT_EQ(fake::hist_events().size(), traced + 2) << "each refusal says why";
    }
}

/* ---- tcamwrap_orvex_tcam_dump ----------------------------------------------------------- */

const std::string kFibRule(68, '-');
const std::string kAclRule(74, '-');
const std::string kFooterRule(77, '-');

TEST_F(Diag, FibTcamDumpFromHardware)
{
    orvex(FIB);
    table(0, FIB, 64);
    fake::set_walk({{0x1f, {0x33333333, 0x22222222, 0x11}, {0xFFFFFFFF, 0xFFFFFFFF, 0xFF}, 72, 1, 3, 0x20},
                    {0x2, {1, 2, 3}, {4, 5, 6}, 72, 0, 0x1c, 0xabcd}},
                   0);
    tbl_params p = params(0, FIB, 1, 0);
    tcamwrap_orvex_tcam_dump(sock.fd(), &p, 7);
    Pieces want = {"Instance: 0 Tbl type: 3 From HW\n\n",
                   kFibRule + "\n#        loc       value               mask         bnk tbl priority\n" + kFibRule + "\n",
                   "     1:    1f 112222222233333333 ffffffffffffffffff  1    3     20\n",
                   "     2:     2 030000000200000001 060000000500000004  0   1c   abcd\n",
                   kFooterRule + "\nTotal entries = 2\n"};
    EXPECT_EQ(sock.pieces(), want);
    auto d = fake::calls_of("orvex_tcam_dump_tables");
    ASSERT_EQ(d.size(), 1u);
    EXPECT_EQ(d[0].a[0], 1u);
    EXPECT_EQ(d[0].a[1], uint64_t(reinterpret_cast<uintptr_t>(reinterpret_cast<void *>(&tcamwrap_cb_orvex_tcam_walk))));
}

TEST_F(Diag, AclTcamDumpFromSoftware)
{
    orvex(ACLO);
    table(0, ACLO, 64);
    fake::set_walk({{0x30, {1, 2, 3, 4, 0xbeef}, {5, 6, 7, 8, 0xf}, 144, 1, 2, 0x7}}, 0);
    tbl_params p = params(0, ACLO, 1, 0);
    tcamwrap_orvex_tcam_dump(sock.fd(), &p, 0);
    Pieces want = {"Instance: 0 Tbl type: 2 From SW (only valid entries)\n\n",
                   kAclRule + "\n#        loc            value/mask                        bnk tbl priority\n" + kAclRule + "\n",
                   "     1:    30 value: beef00000004000000030000000200000001  1    2      7\n"
                   "              mask:  000f00000008000000070000000600000005\n",
                   kFooterRule + "\nTotal entries = 1\n"};
    EXPECT_EQ(sock.pieces(), want);
    EXPECT_EQ(fake::calls_of("orvex_tcam_dump_tables")[0].a[0], 0u);
}

/* Only a failed walk is an error (an empty table is not); the footer is sent
 * either way, with the entries walked so far. */
TEST_F(Diag, FailedWalkIsReportedAndStillSendsTheFooter)
{
    orvex(FIB);
    table(0, FIB, 64);
    tbl_params p = params(0, FIB, 1, 0);
    level(3);
    for (int rc : {-3, 0}) {
        SCOPED_TRACE(rc);
        std::vector<fake::WalkEntry> walked;
        if (rc < 0)
            walked.push_back({5, {1, 2, 3}, {4, 5, 6}, 72, 0, 0, 0});
        fake::set_walk(walked, rc);
        const size_t traced = fake::hist_events().size();
        tcamwrap_orvex_tcam_dump(sock.fd(), &p, 0);
        EXPECT_EQ(sock.pieces().back(), kFooterRule + "\nTotal entries = " + std::to_string(walked.size()) + "\n");
        EXPECT_EQ(fake::hist_events().size() > traced, rc < 0);
    }
}

/* ---- tcamwrap_parity_correction ------------------------------------------------------------ */

/* The 53-byte record built field by field at its offsets, in host order. */
Bytes record(uint32_t hdr, uint32_t status, uint32_t error, uint8_t inst, uint32_t tbl, uint32_t n,
             const std::array<uint32_t, 8> &locs)
{
    Bytes b(53);
    auto put = [&](size_t off, uint32_t v) { std::memcpy(b.data() + off, &v, 4); };
    put(0, hdr);
    put(4, status);
    put(8, error);
    b[12] = inst;
    put(13, tbl);
    put(17, n);
    for (size_t i = 0; i < 8; ++i)
        put(21 + 4 * i, locs[i]);
    return b;
}

Bytes bytes_of(const tcamwrap_parity_msg &m)
{
    const auto *p = reinterpret_cast<const uint8_t *>(&m);
    return Bytes(p, p + sizeof m);
}

tcamwrap_parity_msg msg_of(const Bytes &b)
{
    tcamwrap_parity_msg m;
    std::memcpy(&m, b.data(), sizeof m);
    return m;
}

const std::array<uint32_t, 8> kLocs = {0x10, 0x20, 0x30, 0x44, 0x55, 0x66, 0x77, 0x88};

int tcam3_fn_calls = 0;
tcamwrap_parity_msg *tcam3_seen[2];
int tcam3_fn(tcamwrap_parity_msg *req, tcamwrap_parity_msg *reply)
{
    ++tcam3_fn_calls;
    tcam3_seen[0] = req;
    tcam3_seen[1] = reply;
    reply->status = 0x5A5A5A5A;
    return -5;
}

class Parity : public LibTest {};

TEST_F(Parity, FailedRepairReply)
{
    orvex(FIB);
    tcamwrap_gl_db.fac_num = 0xABCD;
    fake::set_fix_result({-1, 0x1234, {0x20, 0x30}});
    tcamwrap_parity_msg req = msg_of(record(0xDEADBEEF, 77, 88, 1, FIB, 2, kLocs));
    tcamwrap_parity_msg reply;
    std::memset(&reply, 0xCC, sizeof reply);

    const uint32_t code = 0x80000000u | ((0xABCDu << 13) & 0x0FFF0000u) | (0x1234u & 0x0FFFu);
    ASSERT_EQ(code, 0x85790234u);
    EXPECT_EQ(tcamwrap_parity_correction(&req, &reply, tcam3_fn), int32_t(code));
    /* Both locations unfixed: nothing past the reported ones is written. */
    EXPECT_EQ(bytes_of(reply), record(0xDEADBEEF, 1, code, 1, FIB, 2, {0x20, 0x30, 0x30, 0x44, 0x55, 0x66, 0x77, 0x88}));
    EXPECT_EQ(bytes_of(req), record(0xDEADBEEF, 77, 88, 1, FIB, 2, kLocs));   /* the request is not touched */
    EXPECT_EQ(tcam3_fn_calls, 0);

    auto fix = fake::calls_of("orvex_tcam_fix_scan_errors");
    ASSERT_EQ(fix.size(), 1u);
    EXPECT_EQ(fix[0].p.inst, 1);
    EXPECT_EQ(fix[0].a[0], 2u);
    EXPECT_EQ(fake::key_str(fix[0].in[0]), words_image(kLocs.data(), 2));
}

TEST_F(Parity, SuccessfulRepairReplyAndCountClampedToEight)
{
    orvex(ACLI);
    for (uint32_t n : {4u, 200u}) {
        fake::clear_calls();
        tcamwrap_parity_msg req = msg_of(record(1, 2, 3, 0, ACLI, n, kLocs));
        tcamwrap_parity_msg reply;
        std::memset(&reply, 0xCC, sizeof reply);
        EXPECT_EQ(tcamwrap_parity_correction(&req, &reply, tcam3_fn), 0);
        std::array<uint32_t, 8> left = kLocs;
        std::fill(left.begin(), left.begin() + std::min(n, 8u), 0);
        EXPECT_EQ(bytes_of(reply), record(1, 0, 0, 0, ACLI, 0, left)) << n;
        auto fix = fake::calls_of("orvex_tcam_fix_scan_errors");
        ASSERT_EQ(fix.size(), 1u);
        EXPECT_EQ(fix[0].a[0], std::min(n, 8u));
        EXPECT_EQ(fake::key_str(fix[0].in[0]), words_image(kLocs.data(), std::min(n, 8u)));
    }
}

TEST_F(Parity, Tcam3GoesToTheCallersFunction)
{
    orvex(FIB, false);
    tcam3_fn_calls = 0;
    tcamwrap_parity_msg req = msg_of(record(1, 2, 3, 0, FIB, 2, kLocs));
    tcamwrap_parity_msg reply;
    std::memset(&reply, 0xCC, sizeof reply);
    EXPECT_EQ(tcamwrap_parity_correction(&req, &reply, tcam3_fn), 0);
    EXPECT_EQ(tcam3_fn_calls, 1);
    EXPECT_EQ(tcam3_seen[0], &req);
    EXPECT_EQ(tcam3_seen[1], &reply);
    Bytes want(53, 0xCC);
    uint32_t status = 0x5A5A5A5A;
    std::memcpy(want.data() + 4, &status, 4);
    EXPECT_EQ(bytes_of(reply), want);
    EXPECT_TRUE(fake::calls_with_prefix("orvex_").empty());
}

}  // namespace
}  // namespace tw

/*
 * The assertion report: pieces written to "/log/assert-backtrace", each with
 * its terminating zero byte, a size limit of 1 MiB, and execution that goes on.
 *
 * The report is triggered through the restore callback, whose table checks are
 * assertions: a handle of a table without tcam_info (line 1483) and a table
 * without its sloc-valid table (line 1484).
 */
#include "test_support.h"

#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>

#include <fstream>
#include <regex>
#include <sstream>

namespace tw {
namespace {

const char *const kFile = "/log/assert-backtrace";
const char *const kSource = "../platform/storage/linecard/common/uspace/lib/tcamwrap/tcamwrap_api";

std::string read_file(const char *path)
{
    std::ifstream in(path, std::ios::binary);
    std::stringstream ss;
    ss << in.rdbuf();
    return ss.str();
}

void write_file(const char *path, const std::string &content)
{
    std::ofstream out(path, std::ios::binary | std::ios::trunc);
    out << content;
}

/* Keeps whatever report file the machine had and puts it back afterwards. */
class AssertReport : public LibTest {
protected:
    void SetUp() override
    {
        LibTest::SetUp();
        struct stat sb;
        if (stat("/log", &sb) != 0 && mkdir("/log", 0755) != 0)
            GTEST_SKIP() << "cannot create /log (" << std::strerror(errno)
                         << "): the assertion report has nowhere to go; run as root to test it";
        int fd = open(kFile, O_WRONLY | O_CREAT | O_APPEND, 0644);
        if (fd < 0)
            GTEST_SKIP() << "cannot open " << kFile << " for appending (" << std::strerror(errno) << ")";
        close(fd);
        saved_ = read_file(kFile);
        have_saved_ = true;
        write_file(kFile, "");
    }
    void TearDown() override
    {
        if (have_saved_)
            write_file(kFile, saved_);
        LibTest::TearDown();
    }

    /* A restore report for a table the library does not know: line 1483. */
    static int report_missing_table()
    {
        tcamwrap_cb_handle h{};
        h.inst = 0;
        h.tbl_type = FIB;
        uint32_t w[5] = {};
        return tcamwrap_cb_orvex_tcam_restore(&h, 1, w, w, 72, 0, 0, 0);
    }

    std::string saved_;
    bool have_saved_ = false;
};

void expect_report(const std::string &report, const char *func, int line)
{
    std::vector<std::string> p = split_at_nul(report);   /* the backtrace has no zero byte */
    ASSERT_GE(p.size(), 4u) << report;
    EXPECT_EQ(p[0], "\n\n" + std::string(63, '-') + "\n");
    /* "ASSERT: <%F %T>: file %s, function %s, line %d, pid: %d \n" */
    const std::string &h = p[1];
    ASSERT_GT(h.size(), 29u) << h;
    EXPECT_TRUE(std::regex_match(h.substr(0, 27), std::regex("ASSERT: \\d{4}-\\d\\d-\\d\\d \\d\\d:\\d\\d:\\d\\d"))) << h;
    EXPECT_EQ(h.substr(27), ": file " + std::string(kSource) + ", function " + func + ", line " +
                                std::to_string(line) + ", pid: " + std::to_string(getpid()) + " \n");
    EXPECT_EQ(p[2], "\nBacktrace:\n");
    /* backtrace_symbols_fd writes one line per frame. */
    EXPECT_FALSE(p[3].empty());
    EXPECT_EQ(p.size(), 4u) << "no zero byte is expected inside the backtrace";
}

TEST_F(AssertReport, MissingTableIsReportedAndTheCallGoesOn)
{
    errno = 0;
    EXPECT_EQ(report_missing_table(), -1);
    EXPECT_EQ(errno, EINVAL);
    expect_report(read_file(kFile), "tcamwrap_cb_orvex_tcam_restore", 1483);
}

TEST_F(AssertReport, SizeLimitIsOneMebibyte)
{
    struct {
        size_t size;
        bool written;
    } cases[] = {{1048575, true}, {1048576, true}, {1048577, false}, {3000000, false}};
    for (const auto &c : cases) {
        SCOPED_TRACE(testing::Message() << "file of " << c.size << " bytes");
        std::string filler(c.size, 'z');
        write_file(kFile, filler);
        report_missing_table();
        std::string after = read_file(kFile);
        if (c.written) {
            ASSERT_GT(after.size(), c.size);
            EXPECT_EQ(after.compare(0, c.size, filler), 0);
            expect_report(after.substr(c.size), "tcamwrap_cb_orvex_tcam_restore", 1483);
        } else {
            EXPECT_EQ(after.size(), c.size);
        }
    }
}

}  // namespace
}  // namespace tw

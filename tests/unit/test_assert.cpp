/*
 * The assertion report: pieces written to the report file, each with its
 * terminating zero byte, a size limit of 1 MiB, and execution that goes on.
 * The file is "/log/assert-backtrace" on the card; here TCAMWRAP_ASSERT_FILE
 * points it into the test's own directory and TCAMWRAP_SYSLOG_IDENT=none keeps
 * the line out of the system log.
 *
 * The report is triggered through the restore callback, whose table checks are
 * assertions: a handle of a table without tcam_info (line 1483) and a table
 * without its sloc-valid table (line 1484).
 */
#include "test_support.h"

#include <unistd.h>

#include <filesystem>
#include <fstream>
#include <regex>
#include <sstream>

namespace tw {
namespace {

const char *const kSource = "../platform/storage/linecard/common/uspace/lib/tcamwrap/tcamwrap_api";

std::string read_file(const std::string &path)
{
    std::ifstream in(path, std::ios::binary);
    std::stringstream ss;
    ss << in.rdbuf();
    return ss.str();
}

void write_file(const std::string &path, const std::string &content)
{
    std::ofstream out(path, std::ios::binary | std::ios::trunc);
    out << content;
}

class AssertReport : public LibTest {
protected:
    void SetUp() override
    {
        LibTest::SetUp();
        char templ[] = "/tmp/tcamwrap-assert-XXXXXX";
        ASSERT_NE(mkdtemp(templ), nullptr);
        dir_ = templ;
        file_ = dir_ + "/reports/assert-backtrace";
        std::filesystem::create_directory(dir_ + "/reports");
        setenv("TCAMWRAP_ASSERT_FILE", file_.c_str(), 1);
        setenv("TCAMWRAP_SYSLOG_IDENT", "none", 1);
    }
    void TearDown() override
    {
        std::error_code ec;
        std::filesystem::remove_all(dir_, ec);
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

    std::string dir_, file_;
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
    const std::string first = read_file(file_);
    expect_report(first, "tcamwrap_cb_orvex_tcam_restore", 1483);
    /* The variable is read at every report. */
    const std::string other = dir_ + "/other";
    setenv("TCAMWRAP_ASSERT_FILE", other.c_str(), 1);
    report_missing_table();
    expect_report(read_file(other), "tcamwrap_cb_orvex_tcam_restore", 1483);
    EXPECT_EQ(read_file(file_), first);
}

/* The line for the system log, under the identity TCAMWRAP_SYSLOG_IDENT names
 * (none: no line; unset or empty: the process's own). */
TEST_F(AssertReport, LogLineFollowsTheIdentity)
{
    const struct {
        const char *ident;
        std::vector<std::string> calls;
    } cases[] = {
        {"none", {}},
        {"tcw-test", {"openlog", "syslog", "closelog"}},
        {"", {"syslog"}},
        {nullptr, {"syslog"}},
    };
    for (const auto &c : cases) {
        SCOPED_TRACE(c.ident != nullptr ? c.ident : "unset");
        if (c.ident != nullptr)
            setenv("TCAMWRAP_SYSLOG_IDENT", c.ident, 1);
        else
            unsetenv("TCAMWRAP_SYSLOG_IDENT");
        fake::clear_calls();
        report_missing_table();
        EXPECT_EQ(fake::call_names({"openlog", "syslog", "closelog"}), c.calls);
        if (!c.calls.empty()) {
            EXPECT_EQ(fake::calls_of("syslog")[0].text, "Exception at: tcamwrap_cb_orvex_tcam_restore/1483");
        }
        if (c.calls.size() == 3) {
            EXPECT_EQ(fake::calls_of("openlog")[0].text, c.ident);
        }
    }
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
        write_file(file_, filler);
        report_missing_table();
        std::string after = read_file(file_);
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

/*
 * Diagnostics: dumps of a table's LMT, its utilisation and its entries to a
 * caller's socket, and the repair of TCAM locations with parity errors.
 *
 * Dump text goes out piece by piece, each piece followed by its NUL byte, with
 * MSG_NOSIGNAL so that a reader that went away cannot kill the client.
 */
#include <algorithm>
#include <cstdarg>
#include <cstdio>
#include <cstdlib>

#include <sys/socket.h>

#include "tcamwrap_internal.h"

namespace {

/* The one dump buffer, shared by the dumps and the walk callback. */
char tcamwrap_dump_buf[256];
uint32_t tcamwrap_dump_len;

struct tcamwrap_walk_handle {
    uint32_t count;   /* entries sent so far */
    int fd;
};

void tcamwrap_dump_send(int fd, const char *fmt, ...) __attribute__((format(printf, 2, 3)));
void tcamwrap_dump_send(int fd, const char *fmt, ...)
{
    va_list ap;
    va_start(ap, fmt);
    const int n = vsnprintf(tcamwrap_dump_buf, sizeof(tcamwrap_dump_buf) - 1, fmt, ap);
    va_end(ap);
    /* A piece cut at the buffer's limit is sent as far as it was formatted. */
    const uint32_t max = sizeof(tcamwrap_dump_buf) - 2;
    tcamwrap_dump_len = (uint32_t)std::clamp(n, 0, (int)max);
    (void)send(fd, tcamwrap_dump_buf, tcamwrap_dump_len + 1, MSG_NOSIGNAL);
}

/* The table a dump is about, or NULL after its trace. */
const tcam_info *tcamwrap_dump_table(const char *func, const tbl_params *params,
                                     const char *not_orvex)
{
    if (params == nullptr) {
        TCAMWRAP_TRACE_AS(func, 3, "*** NULL params ***\n");
        return nullptr;
    }
    if (!tcamwrap_tbl_is_orvex(params->tbl_type)) {
        TCAMWRAP_TRACE_AS(func, 4, "%s", not_orvex);
        return nullptr;
    }
    const tcam_info *info = tcamwrap_tcam_info(params->inst, params->tbl_type);
    if (info == nullptr)
        TCAMWRAP_TRACE_AS(func, 4, "*** This TCAM is not managed by tcamwrap library ***\n");
    return info;
}

void tcamwrap_lmt_dump_rows(int fd, const tcam_info *info, bool fib)
{
    uint32_t rows = 0;
    for (uint32_t loc = 0; loc < info->lmt_sz; loc++) {
        const uint32_t sloc = tcamwrap_lmt_of(info)[loc];
        if (sloc == TCAMWRAP_INVALID_LOC)
            continue;
        if (fib)
            tcamwrap_dump_send(fd, "%4x\t%4x\n", loc, sloc);
        else
            tcamwrap_dump_send(fd, "%4x\t%4x\t(%4x)\n", loc, sloc, sloc * 2);
        rows++;
    }
    tcamwrap_dump_send(fd, "\nNumber of entries: %d\n", rows);
}

void tcamwrap_lmt_dump_utilisation(int fd, tbl_params *params)
{
    tcamwrap_dump_send(fd, "%s", "Tcam Utilization\t|\t Segments\n");
    tcamwrap_dump_send(fd, "%s", "bank\tentries\tgroups\t| open\tfull\tfree\ttotal\n");
    tcamwrap_dump_send(fd, "%s", "------------------------------------------------------\t\n");
    for (uint8_t bank = 0; bank < 2; bank++) {
        uint32_t entries = 0, groups = 0, open = 0, full = 0, free_segs = 0, total = 0;
        (void)orvex_tcam_get_stats(params, bank, &entries, &groups, &open, &full, &free_segs,
                                   &total);
        tcamwrap_dump_send(fd, "%d\t%d\t%d\t| %d\t%d\t%d\t%d\n", bank, entries, groups, open, full,
                           free_segs, total);
    }
    tcamwrap_dump_send(fd, "%s", "\n");
}

} // namespace

extern "C" void tcamwrap_lmt_dump(int fd, tbl_params *params)
{
    const tcam_info *info = tcamwrap_dump_table(
        __func__, params, "orvex tcam not present and hence LMT is not created\n");
    if (info == nullptr)
        return;
    const bool fib = params->tbl_type == TCAMWRAP_TBL_FIB;
    tcamwrap_dump_send(fd, "Instance: %d Tbl type: %d LMT size: %d\n\n", params->inst,
                       params->tbl_type, info->lmt_sz);
    if (fib) {
        tcamwrap_dump_send(fd, "%s", "Loc\tSLoc\n");
        tcamwrap_dump_send(fd, "%s", "------------\n");
    } else {
        tcamwrap_dump_send(fd, "%s", "Loc\tSLoc\t(HRR Index)\n");
        tcamwrap_dump_send(fd, "%s", "---------------------------\n");
    }
    tcamwrap_lmt_dump_rows(fd, info, fib);
    tcamwrap_dump_send(fd, "%s", "----------------------\n");
    tcamwrap_dump_send(fd, "%s", "\n");
    tcamwrap_lmt_dump_utilisation(fd, params);
}

extern "C" void tcamwrap_orvex_tcam_dump(int fd, tbl_params *params, int from_hw)
{
    if (tcamwrap_dump_table(
            __func__, params,
            "orvex tcam not present; this call is valid only for Orvex Logic Tcam\n") == nullptr)
        return;
    auto *walk = static_cast<tcamwrap_walk_handle *>(malloc(sizeof(tcamwrap_walk_handle)));
    if (walk == nullptr) {
        tcamwrap_saved_errno = ENOMEM;
        TCAMWRAP_TRACE(2, "*** could not allocate memory for orvex tcam walk_handle ***\n");
        return;
    }
    walk->count = 0;
    walk->fd = fd;

    tcamwrap_dump_send(fd, "Instance: %d Tbl type: %d %s\n\n", params->inst, params->tbl_type,
                       from_hw ? "From HW" : "From SW (only valid entries)");
    if (params->tbl_type == TCAMWRAP_TBL_FIB)
        tcamwrap_dump_send(fd, "%s",
                           "--------------------------------------------------------------------\n"
                           "#        loc       value               mask         bnk tbl priority\n"
                           "--------------------------------------------------------------------\n");
    else
        tcamwrap_dump_send(fd, "%s",
                           "--------------------------------------------------------------------------\n"
                           "#        loc            value/mask                        bnk tbl priority\n"
                           "--------------------------------------------------------------------------\n");
    const int rc = orvex_tcam_dump_tables(params, from_hw ? 1 : 0, tcamwrap_cb_orvex_tcam_walk, walk);
    if (rc < 0) {
        tcamwrap_saved_errno = EINVAL;
        TCAMWRAP_TRACE(2,
                       "***  could not walk the tcam table to dump entries; orvex_tcam_dump_tables "
                       "returned %d ***\n",
                       rc);
    }
    tcamwrap_dump_send(fd,
                       "-----------------------------------------------------------------------------\n"
                       "Total entries = %u\n",
                       walk->count);
    free(walk);
}

extern "C" int tcamwrap_cb_orvex_tcam_walk(void *walk_handle, uint32_t camindex,
                                           const uint32_t *value, const uint32_t *mask,
                                           uint32_t width, uint32_t bank, uint32_t tbl,
                                           uint32_t priority)
{
    if (walk_handle == nullptr) {
        TCAMWRAP_TRACE(3, "*** Null handle passed to %s ***\n", __func__);
        errno = EINVAL;
        return -1;
    }
    auto *walk = static_cast<tcamwrap_walk_handle *>(walk_handle);
    walk->count++;
    if (width == TCAMWRAP_FIB_KEY_BITS)
        tcamwrap_dump_send(walk->fd, "%6u: %5x %2.2x%8.8x%8.8x %2.2x%8.8x%8.8x  %1u   %2x   %4x\n",
                           walk->count, camindex, value[2], value[1], value[0], mask[2], mask[1],
                           mask[0], bank, tbl, priority);
    else
        tcamwrap_dump_send(walk->fd,
                           "%6u: %5x value: %4.4x%8.8x%8.8x%8.8x%8.8x  %1u   %2x   %4x\n"
                           "              mask:  %4.4x%8.8x%8.8x%8.8x%8.8x\n",
                           walk->count, camindex, value[4], value[3], value[2], value[1], value[0],
                           bank, tbl, priority, mask[4], mask[3], mask[2], mask[1], mask[0]);
    return 0;
}

/* ---- parity-error correction ---------------------------------------------------------- */

namespace {

constexpr uint32_t TCAMWRAP_PARITY_MAX = 8;

/* The reply's error code: the facility and the search engine's errno. */
uint32_t tcamwrap_parity_failure_code(int err)
{
    return 0x80000000u | ((tcamwrap_gl_db.fac_num << 13) & 0x0FFF0000u) |
           ((uint32_t)err & 0x0FFFu);
}

} // namespace

extern "C" int32_t tcamwrap_parity_correction(tcamwrap_parity_msg *request,
                                              tcamwrap_parity_msg *reply,
                                              int (*tcam3_fn)(tcamwrap_parity_msg *request,
                                                              tcamwrap_parity_msg *reply))
{
    const uint8_t inst = request->inst;
    const uint32_t tbl_type = request->tbl_type;
    const uint32_t num_entries = request->num_entries;
    tbl_params params = {};
    params.inst = inst;
    params.tbl_type = tbl_type;
    TCAMWRAP_TRACE(6, "%s: inst: %d tbl_type: %d num_entries: %d\n", __func__, inst, tbl_type,
                   num_entries);

    if (!tcamwrap_tbl_is_orvex(tbl_type)) {
        TCAMWRAP_TRACE(7, "calling tcam3 callback..\n");
        if (tcam3_fn != nullptr)
            (void)tcam3_fn(request, reply);
        return 0;
    }

    memmove(reply, request, sizeof(*reply));
    reply->num_entries = 0;
    /* The record holds 8 locations: a larger count is cut to what it holds. */
    const uint32_t count = num_entries < TCAMWRAP_PARITY_MAX ? num_entries : TCAMWRAP_PARITY_MAX;
    uint32_t locations[TCAMWRAP_PARITY_MAX] = {};
    uint32_t unfixed[TCAMWRAP_PARITY_MAX] = {};
    for (uint32_t i = 0; i < count; i++) {
        locations[i] = request->locations[i];
        unfixed[i] = 0;
        reply->locations[i] = 0;
        TCAMWRAP_TRACE(7, "location %d: 0x%x(%d)\n", i + 1, locations[i], locations[i]);
    }
    TCAMWRAP_TRACE(7, "calling orvex library api..\n");
    uint32_t num_unfixed = 0;
    if (orvex_tcam_fix_scan_errors(&params, count, locations, &num_unfixed, unfixed) == 0) {
        reply->status = 0;
        reply->error_code = 0;
        return 0;
    }

    const uint32_t code = tcamwrap_parity_failure_code(errno);
    TCAMWRAP_TRACE(3, "num_unfixed_entries: %d failure_reason: %s\n", num_unfixed,
                   errcode2str((int)code));
    num_unfixed = std::min<uint32_t>(num_unfixed, TCAMWRAP_PARITY_MAX);
    reply->error_code = code;
    reply->status = 1;
    reply->num_entries = num_unfixed;
    for (uint32_t i = 0; i < num_unfixed; i++) {
        reply->locations[i] = unfixed[i];
        TCAMWRAP_TRACE(3, "failed location %d: 0x%x(%d)\n", i + 1, unfixed[i], unfixed[i]);
    }
    return (int32_t)code;
}

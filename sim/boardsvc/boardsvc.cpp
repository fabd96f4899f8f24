// boardsvc.cpp - the line-card service of the simulated card (libboardsvc.so).
#include "sim_fault.h"
#include "sim_hw.h"
#include "sys_util.hpp"
#include "tcamwrap_platform.h"

using tcamwrap::sim::fail_with;

extern "C" int get_card_tcam_types(uint32_t types[3])
{
    if (sim_fault_should_fail("get_card_tcam_types"))
        return -1;
    if (types == nullptr)
        return fail_with(EINVAL);
    if (sim_card_num_insts() == 0)
        return -1;  // no card: errno says why
    // The service's numbering: 1 = Orvex, anything else tcam3; ACLI, ACLO, FIB.
    for (uint32_t t = 1; t <= 3; ++t)
        types[t - 1] = sim_card_tcam_kind(t) == SIM_KIND_ORVEX ? 1u : 0u;
    return 0;
}

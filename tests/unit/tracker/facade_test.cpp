// What the facade classes answer with, before and behind the end of the tracker.

#include "tests/unit/tracker/tracker_fixture.h"
#include "vbx/mem/tracker.h"

#include <memory>

class FACADE_TEST : public TRACKER_TEST {};

TEST_F(FACADE_TEST, AnswersFromTheStatisticsAlsoAfterTheTeardown) {
    start(MEM_GRANULARITY_PER_BIN);
    allocate(0x10, 1000, {PARSE});
    allocate(0x20, 500, {PARSE});
    release(0x10, 1000);
    mem_tbb_tracker_teardown();
    EXPECT_EQ(mem_manager.current_total_memory(), 500U);
    EXPECT_EQ(MEM_MANAGER::peak_total_memory(), 1500U);
    const auto block = std::make_unique<char[]>(100);
    EXPECT_GE(MEM_MANAGER::msize(block.get()), 100U);
    EXPECT_LT(MEM_MANAGER::msize(block.get()), 200U);
    MEM_SEGMENT* const segment = MEM_MANAGER::get_default_segment();
    EXPECT_EQ(segment->get_id(), 1);
    EXPECT_EQ(&(*segment = MEM_SEGMENT()), MEM_MANAGER::get_default_segment());
    EXPECT_TRUE(mem_is_allocated(nullptr));
}

// Series give back, sample by sample, what was put into them, and hold no more runs than changes.

#include "vbx/mem/mem_tbb_tracker/records/series.h"

#include <gtest/gtest.h>

#include <random>

namespace {

std::vector<std::int64_t> samples_of(const MEM_SERIES& series) {
    std::vector<std::int64_t> samples;
    MEM_SERIES_CURSOR cursor(series);
    for (std::uint64_t sample = 0; sample < series.num_samples; ++sample)
        samples.push_back(cursor.next());
    EXPECT_EQ(cursor.next(), 0); // and on behind the end
    EXPECT_EQ(cursor.next(), 0);
    return samples;
}

} // namespace

TEST(SERIES_TEST, StandingStillCostsOneRun) {
    MEM_SERIES series;
    EXPECT_EQ(series.max(), 0);
    EXPECT_EQ(samples_of(series), std::vector<std::int64_t>());
    series.append_zeros(0);
    EXPECT_TRUE(series.runs.empty());
    series.append_zeros(5);
    series.append(0); // goes on with the zeros
    for (int sample = 0; sample < 1000; ++sample)
        series.append(-7);
    ASSERT_EQ(series.runs.size(), 2U);
    EXPECT_EQ(series.runs[0].count, 6U);
    EXPECT_EQ(series.runs[1].count, 1000U);
    EXPECT_EQ(series.num_samples, 1006U);
    EXPECT_EQ(series.max(), 0);
}

TEST(SERIES_TEST, TheMaximumCanBeBelowZero) {
    MEM_SERIES series;
    series.append(-7);
    series.append(-3);
    series.append(-9);
    EXPECT_EQ(series.max(), -3);
}

TEST(SERIES_TEST, GivesBackWhatWasAppended) {
    const std::uint64_t seed = std::random_device()();
    SCOPED_TRACE("seed " + std::to_string(seed));
    std::mt19937_64 random(seed);
    MEM_SERIES series;
    std::vector<std::int64_t> expected;
    for (int step = 0; step < 3000; ++step) {
        if (random() % 10 == 0) {
            const std::uint64_t zeros = random() % 4;
            series.append_zeros(zeros);
            expected.insert(expected.end(), zeros, 0);
            continue;
        }
        // Room in advance changes nothing and is there: the runs stay where they are.
        series.make_room();
        const MEM_SERIES_RUN* const place = series.runs.data();
        expected.push_back(static_cast<std::int64_t>(random() % 3) - 1);
        series.append(expected.back());
        ASSERT_EQ(series.runs.data(), place);
    }
    EXPECT_EQ(samples_of(series), expected);
    for (std::size_t run = 1; run < series.runs.size(); ++run)
        ASSERT_NE(series.runs[run].value, series.runs[run - 1].value);
}

#include "vbx/mem/mem_tbb_tracker/events/event_totals.h"

#include "vbx/mem/mem_tbb_tracker/events/threshold_peak.h"

namespace {
constexpr auto relaxed = std::memory_order_relaxed;
} // namespace

bool MEM_EVENT_TOTALS::pass_among_threads(TBBK_THREAD_WORDS* words, std::int64_t bytes) {
    for (;;) {
        {
            const MEM_GATE_MOUSE mover(gate, words);
            if (const TICK tick = take_tick(words); tick != TICK::not_known) {
                move_total(words, bytes);
                return tick == TICK::sample;
            }
        }
        const MEM_GATE_CAT cat(gate);
        call_back();
    }
}

MEM_EVENT_TOTALS::TICK MEM_EVENT_TOTALS::take_tick(TBBK_THREAD_WORDS* words) {
    if (words != nullptr) {
        if (const std::int64_t lent = lent_ticks(*words).load(relaxed); lent != 0) {
            lent_ticks(*words).store(lent - 1, relaxed);
            return TICK::plain;
        }
    }
    const std::uint64_t period = mem_snapshot_period.load(relaxed);
    std::uint64_t tick = mem_sample_counter.load();
    for (;;) {
        const std::uint64_t behind = beyond_multiple(tick, period);
        // Nobody borrows here; who has seen an earlier tick finds that it has moved.
        if (behind == 0 && m_are_ticks_lent.load())
            return TICK::not_known;
        const bool borrows = words != nullptr && behind != 0 && period - behind >= FAR_TICKS;
        if (borrows)
            m_are_ticks_lent.store(true);
        if (!mem_sample_counter.compare_exchange_weak(tick, tick + (borrows ? LOT_OF_TICKS : 1)))
            continue;
        if (borrows)
            lent_ticks(*words).store(LOT_OF_TICKS - 1, relaxed);
        return behind == 0 ? TICK::sample : TICK::plain;
    }
}

void MEM_EVENT_TOTALS::move_total(TBBK_THREAD_WORDS* words, std::int64_t bytes) {
    if (words == nullptr) {
        mem_tracked_total_bytes.fetch_add(bytes);
        return;
    }
    const std::int64_t lent = lent_bytes(*words).load(relaxed);
    if (covers(lent, bytes)) {
        lent_bytes(*words).store(lent - bytes, relaxed);
        return;
    }
    const std::int64_t total = mem_tracked_total_bytes.load() + bytes;
    const bool borrows = total < m_lends_below.load(relaxed) && !mem_is_new_peak(total + FAR_BYTES);
    const std::int64_t lot = borrows ? LOT_OF_BYTES : 0;
    if (borrows)
        m_are_bytes_lent.store(true);
    mem_tracked_total_bytes.fetch_add(bytes + lot - lent);
    lent_bytes(*words).store(lot, relaxed);
}

void MEM_EVENT_TOTALS::call_back() {
    if (!is_lent())
        return;
    std::int64_t ticks = 0, bytes = 0;
    mem_for_each_thread_words([&](TBBK_THREAD_WORDS& words) {
        ticks += lent_ticks(words).exchange(0, relaxed);
        bytes += lent_bytes(words).exchange(0, relaxed);
    });
    mem_sample_counter.fetch_sub(static_cast<std::uint64_t>(ticks), relaxed);
    mem_tracked_total_bytes.fetch_sub(bytes, relaxed);
    m_are_ticks_lent.store(false);
    m_are_bytes_lent.store(false);
}

std::int64_t MEM_EVENT_TOTALS::total() {
    const MEM_GATE_CAT cat(gate);
    call_back();
    return mem_tracked_total_bytes.load();
}

void MEM_EVENT_TOTALS::stop_lending_near(std::int64_t total) {
    m_lends_below.store(total - FAR_BYTES, relaxed);
}

std::uint64_t MEM_EVENT_TOTALS::ticks() {
    const MEM_GATE_CAT cat(gate);
    call_back();
    return mem_sample_counter.load();
}

void MEM_EVENT_TOTALS::set_total(std::int64_t total) {
    const MEM_GATE_CAT cat(gate);
    call_back();
    mem_tracked_total_bytes.store(total);
    lend_up_to_next_peak();
}

void MEM_EVENT_TOTALS::add_tick() {
    const MEM_GATE_CAT cat(gate);
    call_back();
    mem_sample_counter.fetch_add(1);
}

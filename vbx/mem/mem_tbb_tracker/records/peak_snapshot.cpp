#include "vbx/mem/mem_tbb_tracker/records/peak_snapshot.h"

void MEM_PEAK_SNAPSHOT::save(MEM_SITE_TABLE& sites) {
    m_figures.clear();
    m_figures.reserve(sites.size());
    sites.for_each([this](const MEM_ADDRESS_TRACKER& site) {
        if (site.peak_bytes != 0)
            m_figures[site.address] = {site.peak_bytes, site.peak_blocks};
    });
}

void MEM_PEAK_SNAPSHOT::restore(MEM_SITE_TABLE& sites) const {
    sites.for_each([this](MEM_ADDRESS_TRACKER& site) {
        const auto found = m_figures.find(site.address);
        const FIGURES figures = found != m_figures.end() ? found->second : FIGURES{};
        site.peak_bytes = figures.peak_bytes;
        site.peak_blocks = figures.peak_blocks;
    });
}

#include "vbx/mem/mem_tbb_tracker/records/peak_snapshot.h"

void MEM_PEAK_SNAPSHOT::save(MEM_SITE_TABLE& sites) {
    // Made aside: when there is no memory for it, the old one stands.
    decltype(m_figures) figures;
    figures.reserve(sites.size());
    sites.for_each([&figures](const MEM_ADDRESS_TRACKER& site) {
        if (site.peak_bytes != 0)
            figures[site.address] = {site.peak_bytes, site.peak_blocks};
    });
    m_figures.swap(figures);
}

void MEM_PEAK_SNAPSHOT::restore(MEM_SITE_TABLE& sites) const {
    sites.for_each([this](MEM_ADDRESS_TRACKER& site) {
        const auto found = m_figures.find(site.address);
        const FIGURES figures = found != m_figures.end() ? found->second : FIGURES{};
        site.peak_bytes = figures.peak_bytes;
        site.peak_blocks = figures.peak_blocks;
    });
}

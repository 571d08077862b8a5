// Opens, checks and repairs segments of arbitrary bytes, as a supervisor meets them that attaches to
// whatever has the pool's name.
//
// The first byte says what to begin with: 0, the bytes are a control segment; else a right pool of
// some shape. Then come changes of it, each a place of two bytes and a byte. What was repaired has
// no faults any more.

#include <algorithm>
#include <cstddef>
#include <cstdint>
#include <cstdio>
#include <cstdlib>
#include <memory>
#include <string>
#include <vector>

#include "Memory/ShareMem/Repair.h"
#include "Memory/ShareMem/Report.h"
#include "ShareMem/MiniPool.h"
#include "ShareMem/PoolChecker.h"

using Tarsel::TestSupport::CMiniPool;
using Tarsel::TestSupport::faultsOf;

namespace
{

constexpr size_t rawDataSize = 4096;

/// Two segments, each in a piece of the heap of just its size.
struct Segments
{
    std::vector<uint64_t> control;
    std::vector<uint64_t> data;

    Segments(const uint8_t* controlBytes, size_t controlSize, const uint8_t* dataBytes,
             size_t dataSize)
        : control(controlSize / 8), data(dataSize / 8)
    {
        std::copy_n(controlBytes, control.size() * 8, controlMapping().start);
        std::copy_n(dataBytes, data.size() * 8, dataMapping().start);
    }
    ShareMem::Mapping controlMapping()
    {
        return {reinterpret_cast<uint8_t*>(control.data()), control.size() * 8};
    }
    ShareMem::Mapping dataMapping()
    {
        return {reinterpret_cast<uint8_t*>(data.data()), data.size() * 8};
    }
    /// A change of one byte; the data lies behind the control segment.
    void change(size_t place, uint8_t value)
    {
        const size_t inControl = control.size() * 8;
        place %= inControl + data.size() * 8;
        uint8_t* const bytes =
            reinterpret_cast<uint8_t*>(place < inControl ? control.data() : data.data());
        bytes[place < inControl ? place : place - inControl] = value;
    }
};

/// Pools with blocks of which some have several holders, or are on their way.
Segments pool(uint8_t number)
{
    static std::unique_ptr<CMiniPool> s_pools[] = {
        std::make_unique<CMiniPool>(Tarsel::TestSupport::PoolShape{1024, 16, 0}),
        std::make_unique<CMiniPool>(Tarsel::TestSupport::PoolShape{64, 61, 0}),
        std::make_unique<CMiniPool>(Tarsel::TestSupport::PoolShape{256, 30, 3}),
        std::make_unique<CMiniPool>(Tarsel::TestSupport::PoolShape{4096, 9, 0}),
    };
    CMiniPool& chosen = *s_pools[number % 4];
    const ShareMem::Layout& layout = chosen.layout();
    if (list_empty(layout.nodes()) != 0) {
        const size_t page = layout.info->config.pageSize;
        for (const size_t size : {page, 2 * page, page, page}) {
            const size_t offset = chosen.take(size);
            if (offset != noOffset && size != page) {
                chosen.refer()->addRefer(chosen.refer(), offset);
                chosen.refer()->incDeliverRef(chosen.refer(), offset);
            }
        }
    }
    const size_t dataSize = layout.info->config.dataSize;
    const size_t controlSize = static_cast<size_t>(layout.buddyZone->zoneData - chosen.memory()) -
                               sizeof(ZoneHead) + layout.buddyZone->zoneLen;
    return Segments(chosen.memory(), controlSize, layout.data, dataSize);
}

Segments segmentsOf(const uint8_t* bytes, size_t size)
{
    if (bytes[0] == 0) {
        const std::vector<uint8_t> data(rawDataSize);
        return Segments(bytes + 1, size - 1, data.data(), data.size());
    }
    Segments made = pool(bytes[0]);
    for (size_t i = 1; i + 2 < size; i += 3) {
        made.change(bytes[i] | bytes[i + 1] << 8, bytes[i + 2]);
    }
    return made;
}

} // namespace

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* bytes, size_t size)
{
    if (size == 0) {
        return 0;
    }
    ShareMem::holdReports(); // for good: nobody reads them
    Segments segments = segmentsOf(bytes, size);
    ShareMem::Layout layout = {};
    ShareMem::CScratch scratch;
    if (!ShareMem::findZones(segments.controlMapping(), segments.dataMapping(), &layout) ||
        !ShareMem::arePagesSound(segments.controlMapping(), segments.dataMapping(), layout) ||
        !scratch.reserve(layout.info->pageNum)) {
        return 0;
    }
    const std::string before = faultsOf(layout, scratch);
    ShareMem::repairPool(layout, scratch);
    const std::string after = faultsOf(layout, scratch);
    if (!after.empty()) {
        fprintf(stderr, "before:\n%safter:\n%s", before.c_str(), after.c_str());
        std::abort();
    }
    return 0;
}

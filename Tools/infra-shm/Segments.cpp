// Segments.cpp: the list of segments is /proc/sysvipc/shm; whether one is a pool its zones say.

#include "Segments.h"

#include <sys/shm.h>

#include <algorithm>
#include <cstdio>
#include <fstream>
#include <limits>
#include <sstream>
#include <utility>

#include "Common/Failure.h"

using ShareMem::findZones;
using ShareMem::Layout;
using ShareMem::Mapping;

namespace
{

std::optional<Segment> parseSegment(const std::string& line)
{
    std::istringstream text(line);
    Segment segment = {};
    unsigned mode = 0;
    pid_t lastUser = 0;
    gid_t group = 0;
    time_t mapped = 0;
    time_t unmapped = 0;
    text >> segment.key >> segment.id >> std::oct >> mode >> std::dec >> segment.size >>
        segment.creator >> lastUser >> segment.attached >> segment.owner >> group >>
        segment.creatorUser >> group >> mapped >> unmapped >> segment.changed;
    segment.mode = mode & 0777;
    segment.isRemoved = (mode & SHM_DEST) != 0;
    return text ? std::optional(segment) : std::nullopt;
}

bool isControl(const Segment& segment)
{
    const CAttachment control(segment, Access::read);
    Layout layout = {};
    return control.ok() && findZones(control.mapping(), {}, &layout);
}

/// How much the pool that this control segment describes needs in its data segment.
size_t dataSizeOf(const Segment& control)
{
    const CAttachment attachment(control, Access::read);
    Layout layout = {};
    const Mapping anyData = {nullptr, std::numeric_limits<size_t>::max()};
    return attachment.ok() && findZones(attachment.mapping(), anyData, &layout) &&
                   arePagesSound(attachment.mapping(), anyData, layout)
               ? layout.info->config.dataSize
               : 0;
}

/// A data segment holds nothing but pages, so it is known by what is around it: it has the name, or
/// lost it like the control segment, is large enough for the pages, and was made by the same user.
/// Without a name it was made by the same process, too. With one it need not be: who makes a pool
/// takes over a segment that is left and large enough.
bool belongsTo(const Segment& data, const Segment& control, size_t dataSize)
{
    if (data.isRemoved != control.isRemoved || data.size < dataSize ||
        data.creatorUser != control.creatorUser) {
        return false;
    }
    return control.isRemoved
               ? data.creator == control.creator && dataSize != 0 && data.id != control.id
               : data.key == strToKey(dataSegment);
}

const Segment* findByName(const std::vector<Segment>& segments, const char* name)
{
    const auto found = std::find_if(segments.begin(), segments.end(), [name](const Segment& one) {
        return !one.isRemoved && one.key == strToKey(name);
    });
    return found != segments.end() ? &*found : nullptr;
}

} // namespace

std::vector<Segment> allSegments()
{
    std::ifstream file("/proc/sysvipc/shm");
    if (!file) {
        throw CFailure::ofSystem("/proc/sysvipc/shm");
    }
    std::vector<Segment> segments;
    for (std::string line; std::getline(file, line);) {
        if (const std::optional<Segment> segment = parseSegment(line)) {
            segments.push_back(*segment);
        }
    }
    return segments;
}

CAttachment::CAttachment(const Segment& segment, Access access)
{
    void* const start = shmat(segment.id, nullptr, access == Access::read ? SHM_RDONLY : 0);
    if (start != reinterpret_cast<void*>(-1)) {
        m_mapping = {static_cast<uint8_t*>(start), segment.size};
    }
}

CAttachment::~CAttachment()
{
    if (ok()) {
        shmdt(m_mapping.start);
    }
}

CAttachment::CAttachment(CAttachment&& other) noexcept
    : m_mapping(std::exchange(other.m_mapping, {}))
{}

CAttachment& CAttachment::operator=(CAttachment&& other) noexcept
{
    std::swap(m_mapping, other.m_mapping);
    return *this;
}

std::vector<Pool> allPools()
{
    const std::vector<Segment> segments = allSegments();
    std::vector<Pool> pools;
    for (const Segment& control : segments) {
        const bool isNamed = control.key == strToKey(controlSegment);
        if ((!isNamed && !control.isRemoved) || !isControl(control)) {
            continue;
        }
        Pool pool = {control, {}};
        const size_t dataSize = dataSizeOf(control);
        for (const Segment& data : segments) {
            if (belongsTo(data, control, dataSize)) {
                pool.data = data;
                break;
            }
        }
        pools.push_back(pool);
    }
    return pools;
}

Pool currentPool()
{
    const std::vector<Segment> segments = allSegments();
    const Segment* const control = findByName(segments, controlSegment);
    const Segment* const data = findByName(segments, dataSegment);
    if (control == nullptr) {
        throw CFailure("no pool: there is no segment " + keyText(strToKey(controlSegment)));
    }
    const CAttachment attachment(*control, Access::read);
    if (!attachment.ok()) {
        throw CFailure::ofSystem("segment " + std::to_string(control->id));
    }
    Layout layout = {};
    if (!findZones(attachment.mapping(), {}, &layout)) {
        throw CFailure("no pool: segment " + std::to_string(control->id) +
                       " has the name of one, and other contents");
    }
    if (data == nullptr) {
        throw CFailure("no pool: there is no segment " + keyText(strToKey(dataSegment)) +
                       " with the pages");
    }
    if (!belongsTo(*data, *control, dataSizeOf(*control))) {
        throw CFailure("no pool: segment " + std::to_string(data->id) +
                       " has the name of the pages, and is too small or of another user");
    }
    return {*control, *data};
}

bool isNameTaken(const char* name)
{
    return findByName(allSegments(), name) != nullptr;
}

bool isStillCurrent(const Segment& segment)
{
    shmid_ds state = {};
    return shmctl(segment.id, IPC_STAT, &state) == 0 && (state.shm_perm.mode & SHM_DEST) == 0;
}

std::string keyText(key_t key)
{
    char text[16];
    snprintf(text, sizeof(text), "0x%08x", static_cast<unsigned>(key));
    return text;
}

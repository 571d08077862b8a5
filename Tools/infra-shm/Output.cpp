// Output.cpp: values as text and as JSON.

#include "Output.h"

#include <unistd.h>

#include <algorithm>
#include <cstdarg>

#include "Common/Failure.h"

namespace
{

constexpr size_t pictureColumns = 64;
constexpr size_t pictureRows = 32;
constexpr size_t fewBlocks = 40;

const char* mutexKindText(MutexState::Kind kind)
{
    switch (kind) {
    case MutexState::free:
        return "free";
    case MutexState::held:
        return "held";
    case MutexState::ownerDied:
        return "owner died";
    case MutexState::lost:
        return "held by a thread that is not there";
    default:
        return "unusable";
    }
}

} // namespace

std::string plural(size_t count, const char* thing, const char* ending)
{
    return std::to_string(count) + " " + thing + (count == 1 ? "" : ending);
}

std::string textOf(const char* format, ...)
{
    va_list arguments;
    va_list again;
    va_start(arguments, format);
    va_copy(again, arguments);
    std::string text(static_cast<size_t>(vsnprintf(nullptr, 0, format, arguments)), '\0');
    vsnprintf(text.data(), text.size() + 1, format, again);
    va_end(again);
    va_end(arguments);
    return text;
}

// COutput ----------------------------------------------------------------------------------------

COutput::COutput(bool isJson) : m_file(fdopen(dup(STDOUT_FILENO), "w")), m_isJson(isJson)
{
    if (m_file == nullptr) {
        throw CFailure::ofSystem("standard output");
    }
    dup2(STDERR_FILENO, STDOUT_FILENO); // without one the library's lines go among ours
}

COutput::~COutput()
{
    finish();
}

void COutput::text(const std::string& text)
{
    fwrite(text.data(), 1, text.size(), m_file);
    fflush(m_file);
}

void COutput::json(const Json& value, bool isLine)
{
    text(value.dump(isLine ? -1 : 2, ' ', false, Json::error_handler_t::replace) + "\n");
}

bool COutput::finish()
{
    if (m_file == nullptr) {
        return true;
    }
    const bool isWhole = ferror(m_file) == 0;
    const bool isClosed = fclose(m_file) == 0;
    m_file = nullptr;
    return isWhole && isClosed;
}

// JSON -------------------------------------------------------------------------------------------

Json jsonOf(const Segment& segment)
{
    Json processes = Json::array();
    for (const pid_t pid : processesWithSegment(segment.id)) {
        processes.push_back({{"pid", pid}, {"name", nameOf(pid)}});
    }
    return {{"key", segment.key},
            {"id", segment.id},
            {"size", segment.size},
            {"mode", textOf("%04o", segment.mode)},
            {"removed", segment.isRemoved},
            {"owner", segment.owner},
            {"creator", {{"pid", segment.creator}, {"state", lifeText(lifeOf(segment.creator))}}},
            {"attached", segment.attached},
            {"processes", processes}};
}

Json jsonOf(const Pool& pool)
{
    return {{"control", jsonOf(pool.control)}, {"data", pool.data ? jsonOf(*pool.data) : Json()}};
}

Json jsonOf(const MutexState& state)
{
    Json value = {{"state", mutexKindText(state.kind)}};
    if (state.thread != 0) {
        value["thread"] = state.thread;
        value["process"] = state.process;
        value["name"] = state.name;
        value["repairing"] = state.isRepairing;
    }
    return value;
}

Json jsonOf(const PoolView& view)
{
    Json orders = Json::array();
    for (size_t order = 0; order < view.orders.size(); ++order) {
        orders.push_back({{"order", order},
                          {"pages", size_t{1} << order},
                          {"taken", view.orders[order].taken},
                          {"free", view.orders[order].freeBlocks}});
    }
    Json blocks = Json::array();
    for (const Block& block : view.blocks) {
        Json holders = Json::array();
        for (const Holder& holder : block.holders) {
            holders.push_back({{"pid", holder.pid},
                               {"state", lifeText(holder.life)},
                               {"name", holder.name},
                               {"references", holder.references}});
        }
        blocks.push_back({{"offset", size_t{block.page} * view.config.pageSize},
                          {"page", block.page},
                          {"pages", block.pages},
                          {"holders", holders},
                          {"handOvers", block.handOvers},
                          {"passesToExpire", block.expireCount}});
    }
    Json small = Json::array();
    for (const SmallPage& page : view.smallPages) {
        small.push_back({{"page", page.page}, {"objects", page.objects}, {"used", page.used}});
    }
    return {{"size", view.config.dataSize},
            {"pageSize", view.config.pageSize},
            {"pages", view.pageNum},
            {"freePages", view.freePages},
            {"orders", orders},
            {"blocks", blocks},
            {"smallObjectPages", small},
            {"picture", view.picture}};
}

// Text -------------------------------------------------------------------------------------------

namespace
{

std::string creatorText(const Segment& segment)
{
    if (segment.creator == 0) {
        return "made in another pid namespace";
    }
    return textOf("made by process %d (%s)", static_cast<int>(segment.creator),
                  lifeText(lifeOf(segment.creator)));
}

std::string segmentText(const char* role, const Segment& segment)
{
    std::string text =
        textOf("%-9s key %s, id %d, %zu bytes, mode %04o, %s, %s%s\n", role,
               segment.isRemoved ? "none" : keyText(segment.key).c_str(), segment.id, segment.size,
               segment.mode, creatorText(segment).c_str(),
               (plural(segment.attached, "mapping")).c_str(), segment.isRemoved ? ", removed" : "");
    return text;
}

std::string processesText(const Segment& segment)
{
    std::string text;
    for (const pid_t pid : processesWithSegment(segment.id)) {
        text += textOf(" %d (%s)", static_cast<int>(pid), nameOf(pid).c_str());
    }
    return "processes" + (text.empty() ? " none that can be seen" : text) + "\n";
}

std::string ordersText(const PoolView& view)
{
    std::string text = "\norder      pages       free      taken\n";
    for (size_t order = 0; order < view.orders.size(); ++order) {
        const OrderView& one = view.orders[order];
        if (!one.freeBlocks.empty() || one.taken != 0) {
            text += textOf("%5zu %10zu %10zu %10u\n", order, size_t{1} << order,
                           one.freeBlocks.size(), one.taken);
        }
    }
    return text;
}

std::string pictureText(const PoolView& view)
{
    size_t group = 1;
    const std::string picture = shrinkPicture(view.picture, pictureColumns * pictureRows, &group);
    std::string text =
        textOf("\npages, %s a character\n%s\n", plural(group, "page").c_str(), pictureLegend);
    for (size_t at = 0; at < picture.size(); at += pictureColumns) {
        text += textOf("%9zu %s\n", at * group, picture.substr(at, pictureColumns).c_str());
    }
    return text;
}

std::string holderText(const Holder& holder)
{
    std::string text = textOf(" %d", static_cast<int>(holder.pid));
    if (holder.references > 1) {
        text += textOf("x%u", holder.references);
    }
    return text + " (" + (holder.name.empty() ? lifeText(holder.life) : holder.name) + ")";
}

std::string blocksText(const PoolView& view, bool all)
{
    if (view.blocks.empty()) {
        return "\nno blocks\n";
    }
    std::string text = "\nblock at      pages  hand-overs  passes left  holders\n";
    const size_t shown = all ? view.blocks.size() : std::min(view.blocks.size(), fewBlocks);
    for (size_t i = 0; i < shown; ++i) {
        const Block& block = view.blocks[i];
        text += textOf("%10zu %8u  %10u  ", size_t{block.page} * view.config.pageSize, block.pages,
                       block.handOvers);
        text += block.handOvers != 0 ? textOf("%11d ", static_cast<int>(block.expireCount))
                                     : textOf("%11s ", "-");
        for (const Holder& holder : block.holders) {
            text += holderText(holder);
        }
        text += block.holders.empty() ? " none\n" : "\n";
    }
    if (shown < view.blocks.size()) {
        text += textOf("... and %zu more (--all shows them)\n", view.blocks.size() - shown);
    }
    return text;
}

std::string smallPagesText(const PoolView& view)
{
    size_t used = 0;
    size_t room = 0;
    for (const SmallPage& page : view.smallPages) {
        used += page.used;
        room += page.objects;
    }
    return textOf("\nsmall objects: %zu of %zu in %s\n", used, room,
                  plural(view.smallPages.size(), "page").c_str());
}

} // namespace

std::string textOf(const Pool& pool)
{
    std::string text = segmentText("control", pool.control);
    text += pool.data ? segmentText("data", *pool.data) : "data      not found\n";
    return text + processesText(pool.control);
}

std::string textOf(const PoolView& view, bool all)
{
    return textOf("sizes     %u bytes, %u pages of %u bytes, %zu orders; %u pages free\n",
                  view.config.dataSize, view.pageNum, view.config.pageSize, view.orders.size(),
                  view.freePages) +
           ordersText(view) + pictureText(view) + blocksText(view, all) + smallPagesText(view);
}

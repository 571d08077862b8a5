#ifndef INFRA_TOOLS_SHM_OUTPUT_H
#define INFRA_TOOLS_SHM_OUTPUT_H

// What the commands print, as text for people or as JSON, on the standard output that the tool was
// given. The library's own lines go to standard error.

#include <cstdio>
#include <string>
#include <vector>

#include <nlohmann/json.hpp>

#include "View.h"

typedef nlohmann::ordered_json Json;

/// Like printf, to a string.
__attribute__((format(printf, 1, 2))) std::string textOf(const char* format, ...);
/// "1 page", "2 pages"
std::string plural(size_t count, const char* thing, const char* ending = "s");

class COutput
{
public:
    explicit COutput(bool isJson);
    ~COutput();
    COutput(const COutput&) = delete;
    COutput& operator=(const COutput&) = delete;

    bool isJson() const { return m_isJson; }
    void setJson(bool isJson) { m_isJson = isJson; }
    void text(const std::string& text);
    /// One value, on one line when it is one of many.
    void json(const Json& value, bool isLine = false);
    /// False when something could not be written.
    bool finish();

private:
    FILE* m_file;
    bool m_isJson;
};

Json jsonOf(const Segment& segment);
Json jsonOf(const Pool& pool);
Json jsonOf(const MutexState& state);
Json jsonOf(const PoolView& view);

std::string textOf(const Pool& pool);
/// All blocks, or the first few.
std::string textOf(const PoolView& view, bool all);

#endif

// CheckIncludeVersion.cpp: do the libraries of this process agree on the headers they share?
//
// Each registration is compared with all before it, because libraries are loaded one by one and
// each should hear of a conflict when it appears. The report at the end is another question, what
// to do about it: for each header set the highest revision that anybody used is what all should
// use.

#include "Infra/CheckIncludeVersion.h"

#include <algorithm>
#include <climits>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <map>
#include <utility>

#include "CheckIncludeVersionInternal.h"
#include "Infra/Infra3/Guard.h"
#include "Infra3/AssertFront.h"
#include "Infra3/BoundedText.h"
#include "Infra3/Immortal.h"
#include "Infra3/LogFront.h"

using namespace Tarsel::Infra;

namespace
{

typedef CCheckIncludeVersion::IncludeVersion IncludeVersion;

/// Revision by header set, in the order of the texts.
typedef std::map<std::string, int> HighestVersions;

constexpr char reportStart[] = "----------------check include report start---------------";
constexpr char reportEnd[] = "----------------check include report end---------------";

bool sameText(const char* a, const char* b)
{
    return strcmp(shownText(a), shownText(b)) == 0;
}

const char* keep(std::list<std::string>& texts, const char* text)
{
    return text == nullptr ? nullptr : texts.emplace_back(text).c_str();
}

/// Its texts and records move with the node, none of them changes its address.
IncludeVersionNode copyOf(const char* libName, const IncludeVersion* records, int number)
{
    IncludeVersionNode node = {};
    node.name = shownText(libName);
    for (int idx = 0; records != nullptr && idx < number; ++idx) {
        const char* const url = keep(node.texts, records[idx].url);
        node.records.push_back({url, keep(node.texts, records[idx].version)});
    }
    node.version = node.records.data();
    node.num = static_cast<int>(node.records.size());
    return node;
}

std::vector<ErrorList> conflictsOf(const IncludeVersionNode& earlier,
                                   const IncludeVersionNode& added)
{
    std::vector<ErrorList> conflicts;
    for (int index1 = 0; index1 < earlier.num; ++index1) {
        for (int index2 = 0; index2 < added.num; ++index2) {
            const IncludeVersion& one = earlier.version[index1];
            const IncludeVersion& other = added.version[index2];
            if (sameText(one.url, other.url) && !sameText(one.version, other.version)) {
                conflicts.push_back({index1, index2});
            }
        }
    }
    return conflicts;
}

/// The number that `version` begins with, within the range of int; 0 for none.
int versionNumber(const char* version)
{
    const long number = strtol(textOrEmpty(version), nullptr, 10);
    return number > INT_MAX ? INT_MAX : static_cast<int>(number);
}

HighestVersions highestVersionsOf(const std::vector<const IncludeVersionNode*>& nodes)
{
    HighestVersions highest;
    for (const IncludeVersionNode* node : nodes) {
        for (const IncludeVersion& record : node->records) {
            int& number = highest[shownText(record.url)];
            number = std::max(number, versionNumber(record.version));
        }
    }
    return highest;
}

bool usesHighest(const IncludeVersionNode& node, const HighestVersions& highest)
{
    for (const IncludeVersion& record : node.records) {
        if (versionNumber(record.version) != highest.at(shownText(record.url))) {
            return false;
        }
    }
    return true;
}

/// The last part of the address: the folder to check out.
const char* folderOf(const char* url)
{
    const char* const slash = strrchr(url, '/');
    return slash == nullptr ? "null" : slash + 1;
}

/// From the address proper on, behind "URL: "; the whole where there is none.
const char* addressOf(const char* url)
{
    for (const char* const scheme : {"http:", "https:"}) {
        if (const char* const address = strstr(url, scheme)) {
            return address;
        }
    }
    return url;
}

/// What a library should use, one line a header set, cut where a report has no more room.
std::string suggestionFor(const IncludeVersionNode& node, const HighestVersions& highest)
{
    constexpr size_t room = 12800 - 1;
    std::string text;
    for (const IncludeVersion& record : node.records) {
        const char* const url = shownText(record.url);
        text.append(folderOf(url)).append(" -r").append(std::to_string(highest.at(url)));
        text.append(" ").append(addressOf(url)).append("\n");
    }
    text.resize(std::min(text.size(), room));
    return text;
}

} // namespace

CCheckIncludeVersionInter* CCheckIncludeVersionInter::instance()
{
    struct Tag;
    return &immortal<CCheckIncludeVersionInter, Tag>();
}

bool CCheckIncludeVersionInter::match(const char* libName, IncludeVersion* includeVersion,
                                      int includeVersionNum)
{
    IncludeVersionNode node = copyOf(libName, includeVersion, includeVersionNum);
    INFRA_LOG_INFO("check include version:%s\n", node.name.c_str());
    bool valid = true;
    for (const IncludeVersion& record : node.records) {
        INFRA_LOG_INFO("%s %s\n", shownText(record.url), shownText(record.version));
        valid = checkVersion(record.version) && valid;
    }
    IncludeVersionNode* conflicting = nullptr;
    const IncludeVersionNode* const added = enterNode(std::move(node), valid, &conflicting);
    if (!valid) {
        logInvalid(*added);
    } else if (conflicting != nullptr) {
        logConflicts(*conflicting, *added);
    }
    return valid && conflicting == nullptr;
}

/// Appends `node` and sets the flags; a valid one is compared with those before it, and the first
/// that it conflicts with, or null, goes to `*conflicting`.
IncludeVersionNode* CCheckIncludeVersionInter::enterNode(IncludeVersionNode node, bool valid,
                                                         IncludeVersionNode** conflicting)
{
    CGuard guard(m_mutex);
    if (valid) {
        for (IncludeVersionNode& earlier : m_includeVersionList) {
            if (!match_inter(&earlier, &node)) {
                *conflicting = &earlier;
                break;
            }
        }
    }
    m_selfError = m_selfError && valid;
    m_matchFlag = m_matchFlag && valid && *conflicting == nullptr;
    return &m_includeVersionList.emplace_back(std::move(node));
}

void CCheckIncludeVersionInter::logInvalid(const IncludeVersionNode& node)
{
    const void* const self = this;
    INFRA_LOG_ERROR("this:%p %s version error\n", self, node.name.c_str());
    for (const IncludeVersion& record : node.records) {
        if (!checkVersion(record.version)) {
            INFRA_LOG_ERROR("this:%p %s %s\n", self, shownText(record.url),
                            shownText(record.version));
        }
    }
}

void CCheckIncludeVersionInter::logConflicts(const IncludeVersionNode& earlier,
                                             const IncludeVersionNode& added)
{
    const void* const self = this;
    INFRA_LOG_ERROR("this:%p check include version failed\n", self);
    for (const ErrorList& conflict : conflictsOf(earlier, added)) {
        const IncludeVersion& one = earlier.version[conflict.index1];
        const IncludeVersion& other = added.version[conflict.index2];
        INFRA_LOG_ERROR("this:%p %s %s %s\n", self, earlier.name.c_str(), shownText(one.url),
                        shownText(one.version));
        INFRA_LOG_ERROR("this:%p %s %s %s\n", self, added.name.c_str(), shownText(other.url),
                        shownText(other.version));
    }
}

void CCheckIncludeVersionInter::checkResult()
{
    const void* const self = this;
    Nodes nodes;
    m_mutex.enter();
    const bool matched = m_matchFlag;
    const bool wellFormed = m_selfError;
    for (const IncludeVersionNode& node : m_includeVersionList) {
        nodes.push_back(&node);
    }
    m_mutex.leave();
    if (matched) {
        INFRA_LOG_INFO("CCheckIncludeVersionInter::checkResult successful\n");
        return;
    }
    INFRA_LOG_ERROR("this:%p CCheckIncludeVersionInter::checkResult error:%s\n", self,
                    wellFormed ? "match error" : "self error");
    if (wellFormed) {
        reportConflicts(nodes);
    } else {
        reportInvalidVersions(nodes);
    }
    INFRA_ASSERT_TEXT(matched, "m_matchFlag");
}

void CCheckIncludeVersionInter::reportInvalidVersions(const Nodes& nodes)
{
    const void* const self = this;
    INFRA_LOG_ERROR("this:%p %s\n", self, reportStart);
    for (const IncludeVersionNode* node : nodes) {
        for (const IncludeVersion& record : node->records) {
            if (!checkVersion(record.version)) {
                INFRA_LOG_ERROR("libname:%s, url:%s version:%s\n", node->name.c_str(),
                                shownText(record.url), shownText(record.version));
            }
        }
    }
    INFRA_LOG_ERROR("this:%p %s\n", self, reportEnd);
}

void CCheckIncludeVersionInter::reportConflicts(const Nodes& nodes)
{
    const void* const self = this;
    const HighestVersions highest = highestVersionsOf(nodes);
    INFRA_LOG_INFO("--------include version all start---------\n");
    for (const auto& [url, number] : highest) {
        INFRA_LOG_INFO("%s %d\n", url.c_str(), number);
    }
    INFRA_LOG_INFO("--------include version all end---------\n");

    INFRA_LOG_ERROR("this:%p %s\n", self, reportStart);
    for (const IncludeVersionNode* node : nodes) {
        if (usesHighest(*node, highest)) {
            INFRA_LOG_ERROR("this:%p [%s], include is ok\n", self, node->name.c_str());
        } else {
            INFRA_LOG_ERROR("this:%p [%s], include version suggest:\n", self, node->name.c_str());
            INFRA_LOG_ERROR("this:%p \n%s", self, suggestionFor(*node, highest).c_str());
        }
        INFRA_LOG_ERROR("this:%p ------------------------------------\n", self);
    }
    INFRA_LOG_ERROR("this:%p %s\n", self, reportEnd);
}

bool CCheckIncludeVersionInter::checkVersion(const char* version)
{
    const char* const text = textOrEmpty(version);
    return *text != '\0' && text[strspn(text, "0123456789")] == '\0';
}

bool CCheckIncludeVersionInter::match_inter(IncludeVersionNode* earlier, IncludeVersionNode* added)
{
    return conflictsOf(*earlier, *added).empty();
}

CCheckIncludeVersion::CCheckIncludeVersion(const char* libName, IncludeVersion* includeVersion,
                                           int includeVersionNum)
{
    if (!CCheckIncludeVersionInter::instance()->match(libName, includeVersion, includeVersionNum)) {
        INFRA_LOG_ERROR("this:%p check include version failed, assert\n",
                        static_cast<const void*>(this));
    }
}

void CCheckIncludeVersion::doNothing() {}

void CCheckIncludeVersion::checkResult()
{
    CCheckIncludeVersionInter::instance()->checkResult();
}

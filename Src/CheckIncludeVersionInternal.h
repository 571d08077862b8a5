#ifndef INFRA_SRC_CHECKINCLUDEVERSIONINTERNAL_H
#define INFRA_SRC_CHECKINCLUDEVERSIONINTERNAL_H

#include <list>
#include <string>
#include <vector>

#include "Infra/CheckIncludeVersion.h"
#include "Infra3/LeafMutex.h"

/// What one library registered.
///
/// `version` points to `num` records that the node owns: the library that they came from may be
/// unloaded. A node, once in the list, neither changes nor goes away.
struct IncludeVersionNode
{
    std::string name; ///< of the library
    CCheckIncludeVersion::IncludeVersion* version;
    int num;

    std::vector<CCheckIncludeVersion::IncludeVersion> records;
    std::list<std::string> texts;
};

/// Two records, by their positions in two nodes, that disagree.
struct ErrorList
{
    int index1;
    int index2;
};

/// The process's register of header sets: who was compiled against which revision.
///
/// True always: m_matchFlag is false if and only if some registration failed, m_selfError if and
/// only if some failed for a version that is no number. Threads: safe from any thread; nothing is
/// logged under the lock.
class CCheckIncludeVersionInter
{
public:
    CCheckIncludeVersionInter() = default;
    virtual ~CCheckIncludeVersionInter() = default;

    /// The one of the process, made on first use and never destroyed.
    static CCheckIncludeVersionInter* instance();

    /// Registers a library, logging what it declares and what is wrong with it. True if nothing is.
    bool match(const char* libName, CCheckIncludeVersion::IncludeVersion* includeVersion,
               int includeVersionNum);

    /// Logs a report, and ends the process if any registration failed.
    void checkResult();

    /// True for a text of decimal digits.
    bool checkVersion(const char* version);

    /// True when no header set appears in both nodes with different revisions.
    bool match_inter(IncludeVersionNode* earlier, IncludeVersionNode* added);

private:
    CCheckIncludeVersionInter(const CCheckIncludeVersionInter&);
    CCheckIncludeVersionInter& operator=(const CCheckIncludeVersionInter&);

    typedef std::vector<const IncludeVersionNode*> Nodes;

    IncludeVersionNode* enterNode(IncludeVersionNode node, bool valid,
                                  IncludeVersionNode** conflicting);
    void logInvalid(const IncludeVersionNode& node);
    void logConflicts(const IncludeVersionNode& earlier, const IncludeVersionNode& added);
    void reportInvalidVersions(const Nodes& nodes);
    void reportConflicts(const Nodes& nodes);

    std::list<IncludeVersionNode> m_includeVersionList;
    Tarsel::Infra::CLeafMutex m_mutex; // guards the list and the flags
    bool m_matchFlag = true;
    bool m_selfError = true; ///< no self error
};

#endif

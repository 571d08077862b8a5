#ifndef INFRA_SRC_INFRA3_LOGFILECOMPLAINTS_H
#define INFRA_SRC_INFRA3_LOGFILECOMPLAINTS_H

// What goes wrong with the log file is printed on standard output, for a log line about it would
// come back to the file. It is not printed under the file's lock: a thread that has taken standard
// output for itself, as flockfile() lets it, may be waiting for that lock with a line.

#include <cstddef>

namespace Tarsel
{
namespace Infra
{

/// Keeps the calling thread's complaints, and prints them at its end. A thread that has one is in
/// the log file: what it logs does not go there.
class CLogFileComplaints
{
public:
    CLogFileComplaints();
    ~CLogFileComplaints();
    CLogFileComplaints(const CLogFileComplaints&) = delete;
    CLogFileComplaints& operator=(const CLogFileComplaints&) = delete;

    /// The calling thread has one.
    static bool areKept() { return t_kept != nullptr; }

private:
    friend void complain(const char* file, int line, const char* format, ...);

    static constinit thread_local CLogFileComplaints* t_kept;

    size_t m_length = 0;
    char m_text[1024]; ///< room for more than one line can give rise to
};

/// Complains with "[file:line]" and the text; lost unless complaints are kept.
__attribute__((format(printf, 3, 4))) void complain(const char* file, int line, const char* format,
                                                    ...);

} // namespace Infra
} // namespace Tarsel

#endif

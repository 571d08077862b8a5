#ifndef INFRA_TOOLS_LOG_OUTPUT_H
#define INFRA_TOOLS_LOG_OUTPUT_H

#include <string>

#include "Record.h"

/// The record as it stands in the log, with a line end behind it.
void printText(const Record& record);
/// One line of JSON. What the record does not say is missing; bytes that are not UTF-8 are replaced.
void printJson(const Record& record);

#endif

#ifndef KORVEX_CLI_INDEX_REPORT_H
#define KORVEX_CLI_INDEX_REPORT_H

#include <string>

#include "engine/verify.h"

// What `verify` and `info` print about an index on disk.
namespace korvex::cli {

std::string findings_as_text(const verify_report& report);
std::string findings_as_json(const verify_report& report);

std::string index_as_text(const verify_report& report);
std::string index_as_json(const verify_report& report);

// Ends the verb when there was no index to look at; hints at --force where that would help.
void require_checked(const verify_report& report);

}  // namespace korvex::cli

#endif  // KORVEX_CLI_INDEX_REPORT_H

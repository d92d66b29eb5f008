#pragma once

#include <string>
#include <vector>

#include "evidence/EvidenceStore.h"

namespace Evidence {

/// The list's lines, one JSON object each.
std::string ToLine(const Record& record);

/// Reads all lines of `text`; leaves out what is no record, such as a line cut by a full disk.
std::vector<Record> FromLines(const std::string& text);

/// True for 64 lower-case hexadecimal digits: nothing else is a file name of the store.
bool IsId(const std::string& id);

}  // namespace Evidence

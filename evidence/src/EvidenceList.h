#pragma once

#include <string>
#include <vector>

#include "ContentFiles.h"
#include "evidence/EvidenceStore.h"

namespace Evidence {

/// A line of the list.
struct ListedRecord {
    Record record;
    Place place;
};

/// The line as one JSON object with a line end.
std::string ToLine(const Record& record, const Place& place);

/// Reads all lines of `text`; leaves out what is no record, such as a line cut by a full disk.
std::vector<ListedRecord> FromLines(const std::string& text);

}  // namespace Evidence

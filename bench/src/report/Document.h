#pragma once

#include <json/value.h>

#include <string>

#include "report/Results.h"

namespace Bench {

/// Cores, memory, kernel, file system and versions.
Json::Value DescribeMachine(const std::string& work);

/// The form of a run.
struct Form {
    bool brief = false;
    bool busy = false;  ///< with processes that keep the processors busy
};

/// The JSON document of a run: {"machine", "form", "busy", "rows", "limits"}.
Json::Value ToDocument(const Results& results, const Json::Value& machine, const Form& form);

/// The same document in Markdown.
std::string ToMarkdown(const Json::Value& document);

/// Columns for gnuplot: directories, then the median of each product; "?" without samples.
std::string PlotColumns(const Results& results, const std::string& what,
                        const std::vector<std::string>& products);

}  // namespace Bench

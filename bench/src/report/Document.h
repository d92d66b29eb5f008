#pragma once

#include <json/value.h>

#include <string>

#include "report/Results.h"

namespace Bench {

/// Cores, memory, kernel, file system, versions: what the figures depend on.
Json::Value DescribeMachine(const std::string& work);

/// How a run was made.
struct Form {
    bool brief = false;
    bool busy = false;  ///< beside processes that keep the processors busy
};

/// The whole run: {"machine", "form", "rows", "limits"}.
Json::Value ToDocument(const Results& results, const Json::Value& machine, const Form& form);

/// The same for people, in Markdown.
std::string ToMarkdown(const Json::Value& document);

/// Columns for gnuplot: directories, then a median for each guard of `guards`; "?" for none.
std::string PlotColumns(const Results& results, const std::string& what,
                        const std::vector<std::string>& guards);

}  // namespace Bench

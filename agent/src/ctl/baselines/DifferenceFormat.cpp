#include "ctl/baselines/DifferenceFormat.h"

#include <sdk/text/JsonUtils.h>
#include <sdk/text/PercentCode.h>
#include <sdk/text/StrUtils.h>
#include <sdk/text/Utf8.h>

#include <algorithm>
#include <ostream>

#include "ctl/output/Terminal.h"

namespace Ctl {

using Baseline::Difference;
using SDK::StrUtils;

namespace {

constexpr std::array kKinds = {Difference::Kind::kChanged, Difference::Kind::kAttributes,
                               Difference::Kind::kAdded, Difference::Kind::kMissing};
static_assert(kKinds.size() == DifferenceList::kKinds);
constexpr double kThousand = 1000;
constexpr double kShortest = 0.001;  ///< seconds that rates are computed with, at least

std::string DetailOf(const Difference& difference) {
    const bool is_whole =
        difference.is_directory && (difference.kind == Difference::Kind::kAdded ||
                                    difference.kind == Difference::Kind::kMissing);
    return is_whole ? "directory with all below it" : difference.detail;
}

Json::Value SummaryObject(const DifferenceList& list, const Effort& effort) {
    Json::Value summary;
    for (const Difference::Kind kind : kKinds) {
        summary[KindName(kind)] = static_cast<Json::UInt64>(list.Count(kind));
    }
    summary["differences"] = static_cast<Json::UInt64>(list.Total());
    summary["listed"] = static_cast<Json::UInt64>(list.Kept().size());
    summary["objects"] = static_cast<Json::UInt64>(effort.objects);
    summary["bytes"] = static_cast<Json::UInt64>(effort.bytes);
    summary["seconds"] = effort.seconds;
    Json::Value object;
    object["summary"] = summary;
    return object;
}

}  // namespace

const char* KindName(Difference::Kind kind) {
    switch (kind) {
        case Difference::Kind::kChanged:
            return "changed";
        case Difference::Kind::kAttributes:
            return "attributes";
        case Difference::Kind::kAdded:
            return "added";
        case Difference::Kind::kMissing:
            return "missing";
    }
    return "";
}

std::string FormatDifference(const FoundDifference& found) {
    const std::string detail = DetailOf(found.difference);
    return StrUtils::Format("%-10s  %s", KindName(found.difference.kind),
                            Printable(found.Path()).c_str()) +
           (detail.empty() ? "" : "  " + Printable(detail)) + "\n";
}

Json::Value DifferenceObject(const FoundDifference& found) {
    const std::string path = found.Path();
    Json::Value object;
    object["kind"] = KindName(found.difference.kind);
    object["path"] = SDK::ToValidUtf8(path);
    if (object["path"].asString() != path) object["path_bytes"] = SDK::PercentEncode(path);
    object["detail"] = DetailOf(found.difference);
    object["is_directory"] = found.difference.is_directory;
    return object;
}

void WriteDifferences(std::ostream& out, const DifferenceList& list, bool json) {
    for (const FoundDifference& found : list.Kept()) {
        out << (json ? SDK::JsonUtils::JsonToString(DifferenceObject(found)) + "\n"
                     : FormatDifference(found));
    }
    const std::size_t more = list.Total() - list.Kept().size();
    if (!json && more > 0) out << "and " << more << " more\n";
}

std::string CountsOf(const DifferenceList& list) {
    if (list.Total() == 0) return "equal";
    std::string text;
    for (const Difference::Kind kind : kKinds) {
        if (list.Count(kind) == 0) continue;
        text +=
            (text.empty() ? ": " : ", ") + std::to_string(list.Count(kind)) + " " + KindName(kind);
    }
    return std::to_string(list.Total()) + (list.Total() == 1 ? " difference" : " differences") +
           text;
}

std::string FormatSummary(const DifferenceList& list, const Effort& effort, bool json) {
    if (json) return SDK::JsonUtils::JsonToString(SummaryObject(list, effort)) + "\n";
    const double seconds = std::max(effort.seconds, kShortest);
    return CountsOf(list) +
           StrUtils::Format("; %zu objects, %s read in %.1f s (%.0f objects/s, %s/s)\n",
                            effort.objects, FormatBytes(effort.bytes).c_str(), effort.seconds,
                            static_cast<double>(effort.objects) / seconds,
                            FormatBytes(static_cast<double>(effort.bytes) / seconds).c_str());
}

std::string FormatBytes(double bytes) {
    constexpr std::array<const char*, 4> kUnits = {"kB", "MB", "GB", "TB"};
    if (bytes < kThousand) return StrUtils::Format("%.0f bytes", bytes);
    std::size_t unit = 0;
    for (bytes /= kThousand; bytes >= kThousand && unit + 1 < kUnits.size(); ++unit) {
        bytes /= kThousand;
    }
    return StrUtils::Format("%.1f %s", bytes, kUnits.at(unit));
}

}  // namespace Ctl

#include "site/OddNames.h"

#include <Poco/Base64Encoder.h>

#include <filesystem>
#include <fstream>
#include <sstream>
#include <system_error>

namespace Demo {
namespace {

namespace fs = std::filesystem;

constexpr std::size_t kLongestName = 255;

std::string ToBase64(const std::string& text) {
    std::ostringstream out;
    Poco::Base64Encoder encoder(out);
    encoder.rdbuf()->setLineLength(0);
    encoder << text;
    encoder.close();
    return out.str();
}

}  // namespace

OddNames::OddNames(const std::string& site, const std::string& marker_folder)
    : home_(site + "/sentrel-demo-names"), marker_folder_(marker_folder) {
    for (const char* name :
         {"our \"best\" page's copy.html", "gone (it's old).html", "page \\ \"moved\" here.html"}) {
        quoted_.push_back(home_ + "/" + name);
    }
    pages_.push_back({"a leading -", home_ + "/-rf --delete .html", ""});
    pages_.push_back(WithCommand("a command in $()", "$(", ").html"));
    pages_.push_back(WithCommand("a command in ``", "`", "`.html"));
    pages_.push_back(WithCommand("a line end", "line\n", "\nend.html"));
    pages_.push_back(WithCommand("a command", "x;", ";y.html"));
    directory_ = WithCommand("a command", "shop; ", "; old");
    foreign_ = WithCommand("a command", "z&", "&.php");
}

/// Base64 of a path without "?" contains no "/", so it can be part of a name.
OddNames::Name OddNames::WithCommand(const std::string& what, const std::string& before,
                                     const std::string& after) {
    const std::string marker = marker_folder_ + "/run-" + std::to_string(++commands_);
    const std::string command = "echo " + ToBase64(">" + marker) + "|base64 -d|sh";
    return {what, home_ + "/" + before + command + after, marker};
}

std::string OddNames::Make() const {
    std::error_code error;
    fs::create_directories(directory_.path, error);
    if (error) return "cannot make " + directory_.path + ": " + error.message();
    std::vector<std::string> files{directory_.path + "/index.html",
                                   directory_.path + "/two words.html"};
    files.insert(files.end(), quoted_.begin(), quoted_.end());
    for (const Name& page : pages_) files.push_back(page.path);
    for (const std::string& file : files) {
        if (fs::path(file).filename().string().size() > kLongestName) {
            return "the folder for the marks has too long a path: " + marker_folder_;
        }
        std::ofstream out(file, std::ios::binary);
        out << "<p>a page with an odd name</p>\n";
        if (!out.flush()) return "cannot write " + file;
    }
    return {};
}

bool OddNames::AreThere() const {
    std::error_code error;
    return fs::is_directory(directory_.path, error);
}

std::vector<std::string> OddNames::ExecutedMarkers() const {
    std::vector<std::string> run;
    std::vector<Name> names = pages_;
    names.insert(names.end(), {directory_, foreign_});
    for (const Name& name : names) {
        std::error_code error;
        if (!name.marker.empty() && fs::exists(name.marker, error)) run.push_back(name.marker);
    }
    return run;
}

}  // namespace Demo

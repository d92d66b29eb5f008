#pragma once

#include <json/value.h>

#include <initializer_list>
#include <string>
#include <string_view>
#include <vector>

namespace Framework {

/// Reads the members of one JSON object of the configuration and notes the first thing that is
/// wrong, with the JSON pointer of its place. What is missing keeps its value. One thread.
class ConfigReader {
  public:
    /// `pointer` is the object's place. A value that is no object is an error.
    ConfigReader(const Json::Value& object, std::string pointer, std::string& error);

    /// A key that is none of these is an error.
    void AllowOnly(std::initializer_list<std::string_view> keys);

    void Read(const char* key, std::string& value);
    void Read(const char* key, bool& value);
    void Read(const char* key, long least, long most, long& value);
    void Read(const char* key, std::vector<std::string>& values);

    /// The object under that key, an empty one when there is none.
    Json::Value Object(const char* key);

    std::string PointerTo(std::string_view key) const;
    void Fail(std::string_view key, const std::string& what);

  private:
    bool Has(const char* key) const;

    const Json::Value object_;
    const std::string pointer_;
    std::string& error_;
};

}  // namespace Framework

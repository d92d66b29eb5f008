#pragma once

#include <json/value.h>

#include <initializer_list>
#include <string>
#include <string_view>
#include <vector>

namespace Framework {

/// Reads the members of one JSON object of the configuration and notes the first fault with the
/// JSON pointer of its place. A missing member keeps its value. Not thread-safe.
class ConfigReader {
  public:
    /// `pointer` is the JSON pointer to `object`. A value that is not an object is a fault.
    ConfigReader(const Json::Value& object, std::string pointer, std::string& error);

    /// Any other key is a fault.
    void AllowOnly(std::initializer_list<std::string_view> keys);

    void Read(const char* key, std::string& value);
    void Read(const char* key, bool& value);
    void Read(const char* key, long least, long most, long& value);
    void Read(const char* key, std::vector<std::string>& values);

    /// The object under that key; an empty one when it is missing.
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

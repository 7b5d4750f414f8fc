// A minimal JSON reader for the test vector file: objects, arrays, strings and integers.
#pragma once

#include <map>
#include <memory>
#include <string>
#include <vector>

namespace testsupport {

struct Json {
  std::string text;  // strings, and numbers as written
  std::vector<Json> items;
  std::map<std::string, Json> fields;
  const Json& operator[](const std::string& key) const { return fields.at(key); }
  bool Has(const std::string& key) const { return fields.count(key) != 0; }
};

Json ParseJsonFile(const std::string& path);
std::vector<unsigned char> Hex(const std::string& hex);

}  // namespace testsupport

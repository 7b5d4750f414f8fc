#include "json.h"

#include <fstream>
#include <sstream>
#include <stdexcept>

namespace testsupport {

namespace {
struct Parser {
  const std::string& s;
  std::size_t i = 0;
  void Space() {
    while (i < s.size() && (s[i] == ' ' || s[i] == '\n' || s[i] == '\r' || s[i] == '\t')) ++i;
  }
  std::string String() {
    std::string out;
    ++i;
    while (s[i] != '"') {
      if (s[i] == '\\') ++i;
      out += s[i++];
    }
    ++i;
    return out;
  }
  Json Value() {
    Space();
    Json v;
    if (s[i] == '{') {
      ++i;
      for (Space(); s[i] != '}'; Space()) {
        std::string key = String();
        Space();
        ++i;  // ':'
        v.fields[key] = Value();
        Space();
        if (s[i] == ',') ++i;
      }
      ++i;
    } else if (s[i] == '[') {
      ++i;
      for (Space(); s[i] != ']'; Space()) {
        v.items.push_back(Value());
        Space();
        if (s[i] == ',') ++i;
      }
      ++i;
    } else if (s[i] == '"') {
      v.text = String();
    } else {
      while (i < s.size() && s[i] != ',' && s[i] != '}' && s[i] != ']' && s[i] != ' ' && s[i] != '\n') v.text += s[i++];
    }
    return v;
  }
};
}  // namespace

Json ParseJsonFile(const std::string& path) {
  std::ifstream in(path);
  if (!in) throw std::runtime_error("cannot read " + path);
  std::stringstream ss;
  ss << in.rdbuf();
  const std::string text = ss.str();
  Parser p{text};
  return p.Value();
}

std::vector<unsigned char> Hex(const std::string& hex) {
  std::vector<unsigned char> out;
  for (std::size_t k = 0; k + 1 < hex.size(); k += 2) out.push_back(static_cast<unsigned char>(std::stoi(hex.substr(k, 2), nullptr, 16)));
  return out;
}

}  // namespace testsupport

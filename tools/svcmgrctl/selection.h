// SPDX-License-Identifier: Apache-2.0
#ifndef TOOLS_SVCMGRCTL_SELECTION_H_
#define TOOLS_SVCMGRCTL_SELECTION_H_

#include <cstddef>
#include <nlohmann/json.hpp>
#include <string>
#include <vector>

namespace svcmgrctl {

/** Keys keep the order in which they are written down. */
using Json = nlohmann::ordered_json;

/**
 * What is printed of each record, as the user has chosen it: some of its fields, or a template.
 *
 * A record is a JSON object. Its texts are made safe for a terminal; what has no value is empty.
 */
class Selection {
 public:
  /**
   * Reads the value of --fields: names, with commas between.
   * Both throw std::invalid_argument with what is wrong, for people.
   */
  static Selection OfFields(const std::string& list, const std::vector<std::string>& known);

  /** Reads the value of --format: a template, or names as above. In a template {name} stands for a
   *  field, {{ and }} for braces, \t, \n, \0 and \\ for characters. */
  static Selection OfFormat(const std::string& format, const std::vector<std::string>& known);

  bool Uses(const std::string& field) const;

  /** All of these records. */
  std::string Print(const Json& records, bool color, std::size_t width) const;

  /** One record in a line, or as the template has it; empty if the record has none of the fields. */
  std::string Line(const Json& record) const;

 private:
  struct Piece {
    std::string text;
    bool is_field;
  };

  void Add(const std::string& text);
  void AddField(const std::string& name, const std::vector<std::string>& known);
  void AddTemplate(const std::string& text, const std::vector<std::string>& known);

  std::vector<Piece> pieces_;
  bool is_table_ = false;
  const char* end_ = "\n";
};

}  // namespace svcmgrctl

#endif  // TOOLS_SVCMGRCTL_SELECTION_H_

// SPDX-License-Identifier: Apache-2.0
#include "selection.h"

#include <algorithm>
#include <cctype>
#include <sstream>
#include <stdexcept>
#include <utility>

#include "table.h"
#include "terminal_text.h"

namespace svcmgrctl {
namespace {

using terminal_text::ForTerminal;

constexpr char kEscapes[] = "there are \\t, \\n, \\0 and \\\\";

std::string TextIn(const Json& record, const std::string& field) {
  const auto found = record.find(field);
  if (found == record.end() || found->is_null()) return {};
  if (found->is_string()) return found->get<std::string>();
  return found->dump(-1, ' ', true, Json::error_handler_t::replace);
}

std::string Trimmed(const std::string& text) {
  const std::size_t begin = text.find_first_not_of(' ');
  if (begin == std::string::npos) return {};
  return text.substr(begin, text.find_last_not_of(' ') + 1 - begin);
}

std::vector<std::string> Split(const std::string& list) {
  std::vector<std::string> names;
  std::istringstream parts(list + ",");
  for (std::string part; std::getline(parts, part, ',');) names.push_back(Trimmed(part));
  return names;
}

std::string Heading(std::string name) {
  for (char& c : name) c = static_cast<char>(std::toupper(static_cast<unsigned char>(c)));
  return name;
}

/** The character for which an escape at this place of a text stands. */
char Escaped(const std::string& text, std::size_t at) {
  switch (at + 1 < text.size() ? text[at + 1] : ' ') {
    case 't':
      return '\t';
    case 'n':
      return '\n';
    case '0':
      return '\0';
    case '\\':
      return '\\';
    default:
      throw std::invalid_argument("there is no escape '" + text.substr(at, 2) + "'; " + kEscapes);
  }
}

}  // namespace

Selection Selection::OfFields(const std::string& list, const std::vector<std::string>& known) {
  Selection selection;
  selection.is_table_ = true;
  for (const std::string& name : Split(list)) {
    if (!selection.pieces_.empty()) selection.Add("\t");
    selection.AddField(name, known);
  }
  return selection;
}

Selection Selection::OfFormat(const std::string& format, const std::vector<std::string>& known) {
  Selection selection;
  if (format.find_first_of("{}\\") != std::string::npos) {
    selection.AddTemplate(format, known);
  } else {
    selection = OfFields(format, known);
    selection.is_table_ = false;
  }
  return selection;
}

void Selection::Add(const std::string& text) {
  if (pieces_.empty() || pieces_.back().is_field)
    pieces_.push_back({text, false});
  else
    pieces_.back().text += text;
}

void Selection::AddField(const std::string& name, const std::vector<std::string>& known) {
  if (std::find(known.begin(), known.end(), name) == known.end()) {
    std::string all;
    for (const std::string& each : known) all += (all.empty() ? "" : ", ") + each;
    throw std::invalid_argument("there is no field '" + name + "'" +
                                terminal_text::DidYouMean(terminal_text::SimilarTo(name, known)) +
                                "; the fields are " + all);
  }
  pieces_.push_back({name, true});
}

void Selection::AddTemplate(const std::string& text, const std::vector<std::string>& known) {
  for (std::size_t i = 0; i < text.size(); ++i) {
    const bool is_double = i + 1 < text.size() && text[i] == text[i + 1];
    if (text[i] == '\\') {
      const char character = Escaped(text, i++);
      Add(std::string(1, character));
      if (i + 1 == text.size() && (character == '\n' || character == '\0')) end_ = "";
    } else if ((text[i] == '{' || text[i] == '}') && is_double) {
      Add(std::string(1, text[i++]));
    } else if (text[i] == '{') {
      const std::size_t end = text.find('}', i);
      if (end == std::string::npos)
        throw std::invalid_argument("'" + text.substr(i) + "' has no '}'; '{{' stands for a brace");
      AddField(text.substr(i + 1, end - i - 1), known);
      i = end;
    } else if (text[i] == '}') {
      throw std::invalid_argument("'}' has no '{' before it; '}}' stands for a brace");
    } else {
      Add(std::string(1, text[i]));
    }
  }
}

bool Selection::Uses(const std::string& field) const {
  return std::any_of(pieces_.begin(), pieces_.end(),
                     [&](const Piece& piece) { return piece.is_field && piece.text == field; });
}

std::string Selection::Print(const Json& records, bool color, std::size_t width) const {
  std::string lines;
  if (!is_table_) {
    for (const Json& record : records) lines += Line(record);
    return lines;
  }
  if (records.empty()) return {};
  std::vector<std::string> titles;
  for (const Piece& piece : pieces_)
    if (piece.is_field) titles.push_back(Heading(piece.text));
  Table table;
  table.AddHeading(titles);
  for (const Json& record : records) {
    std::vector<Table::Cell> row;
    for (const Piece& piece : pieces_)
      if (piece.is_field) row.push_back({TextIn(record, piece.text)});
    table.AddRow(std::move(row));
  }
  return table.Render(color, width);
}

std::string Selection::Line(const Json& record) const {
  std::string line;
  bool has_any = false;
  bool has_fields = false;
  for (const Piece& piece : pieces_) {
    line += piece.is_field ? ForTerminal(TextIn(record, piece.text)) : piece.text;
    has_fields |= piece.is_field;
    has_any |= piece.is_field && record.contains(piece.text);
  }
  return has_any || !has_fields ? line + end_ : "";
}

}  // namespace svcmgrctl

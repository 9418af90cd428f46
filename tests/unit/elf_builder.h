/* SPDX-License-Identifier: Apache-2.0 */
#ifndef SVCMGR_ELF_BUILDER_H_
#define SVCMGR_ELF_BUILDER_H_

/* ELF files made byte by byte, right ones and wrong ones. */

#include <elf.h>

#include <algorithm>
#include <bit>
#include <cstddef>
#include <cstdint>
#include <optional>
#include <string>
#include <utility>
#include <vector>

namespace elf {

using Bytes = std::string;

/** What each ELF file begins with. */
inline constexpr char kMagic[] = "\177ELF";

/** A number in little-endian bytes. */
inline Bytes Little(std::uint64_t number, std::size_t size) {
  Bytes bytes;
  for (std::size_t i = 0; i < size; ++i) bytes += static_cast<char>(number >> (8 * i) & 0xff);
  return bytes;
}

/** The data encoding of this machine's own files. */
inline constexpr int kNativeOrder =
    std::endian::native == std::endian::little ? ELFDATA2LSB : ELFDATA2MSB;

/** A marker record. */
struct Marker {
  unsigned api_level = 11;
  unsigned version_major = 2;
  unsigned version_minor = 3;
  unsigned version_patch = 182;
  unsigned format = 1;
  unsigned reserved = 0;
  Bytes magic = {'K', 'Y', 'R', '\0'};

  Bytes ToBytes() const {
    return magic + Little(reserved, 2) + Little(format, 2) + Little(api_level, 2) +
           Little(version_major, 2) + Little(version_minor, 2) + Little(version_patch, 2);
  }
};

enum class Kind { k32, k64 };

/** An ELF file: header, contents of the sections, table of their headers; its numbers are this machine's. */
class Builder {
 public:
  explicit Builder(Kind kind) : kind_(kind), class_byte_(kind == Kind::k32 ? 1 : 2) {}

  /** What the file claims to be; the layout stays that of its kind. */
  Builder& ClassByte(int byte) { return Set(class_byte_, byte); }
  Builder& DataByte(int byte) { return Set(data_byte_, byte); }
  /** Its numbers are those of machines with the other byte order, and it says so. */
  Builder& OtherByteOrder() {
    order_ = ELFDATA2LSB + ELFDATA2MSB - kNativeOrder;
    return DataByte(order_);
  }
  /** What the header claims about the table. */
  Builder& ClaimTable(std::uint64_t offset) { return Set(claimed_offset_, offset); }
  Builder& ClaimCount(std::uint64_t count) { return Set(claimed_count_, count); }
  Builder& ClaimEntrySize(std::uint64_t size) { return Set(claimed_entry_size_, size); }
  /** Unused bytes between the header and the contents, and between those and the table. */
  Builder& GapBeforeContents(std::size_t size) { return Set(gap_before_contents_, size); }
  Builder& GapBeforeTable(std::size_t size) { return Set(gap_before_table_, size); }
  /** The table comes directly after the header, and the contents after it. */
  Builder& TableFirst() { return Set(table_first_, true); }
  /** Fills what nobody looks at in a section's header: name, type, flags, address, ... */
  Builder& FillHeaders(char byte) { return Set(filler_, byte); }
  /** Fills the file's own header the same way. */
  Builder& FillFileHeader(char byte) { return Set(file_filler_, byte); }
  /** The upper halves of 64-bit offsets and sizes. */
  Builder& UpperHalves(std::uint32_t bits) { return Set(upper_, bits); }

  /** A section that is in the file. */
  Builder& Section(const Bytes& content) {
    sections_.push_back({content, std::nullopt, content.size()});
    return *this;
  }
  Builder& Section(const Marker& marker) { return Section(marker.ToBytes()); }
  /** A section whose header claims another size. */
  Builder& SectionClaiming(std::uint64_t size, const Bytes& content) {
    sections_.push_back({content, std::nullopt, size});
    return *this;
  }
  /** A header alone. */
  Builder& Header(std::uint64_t offset, std::uint64_t size) {
    sections_.push_back({"", offset, size});
    return *this;
  }

  std::size_t HeaderSize() const { return kind_ == Kind::k32 ? 52 : 64; }
  std::size_t EntrySize() const { return kind_ == Kind::k32 ? 40 : 64; }

  Bytes Build() const {
    const std::size_t table_size = sections_.size() * EntrySize();
    std::size_t place = HeaderSize() + gap_before_contents_ + (table_first_ ? table_size : 0);
    Bytes contents;
    Bytes table;
    for (const auto& section : sections_) {
      table += SectionHeader(section.offset.value_or(place), section.size);
      contents += section.content;
      place += section.content.size();
    }
    const Bytes front_gap(gap_before_contents_, '\0');
    if (table_first_) return FileHeader(HeaderSize()) + table + front_gap + contents;
    const Bytes gap(gap_before_table_, '\0');
    return FileHeader(place + gap_before_table_) + front_gap + contents + gap + table;
  }

 private:
  struct Entry {
    Bytes content;
    std::optional<std::uint64_t> offset;  // if it is not that of the content
    std::uint64_t size;
  };

  template <typename Member, typename Value>
  Builder& Set(Member& member, Value value) {
    member = value;
    return *this;
  }

  std::size_t WordSize() const { return kind_ == Kind::k32 ? 4 : 8; }

  static void Put(Bytes& bytes, std::size_t at, const Bytes& what) {
    bytes.replace(at, what.size(), what);
  }

  Bytes Number(std::uint64_t number, std::size_t size) const {
    Bytes bytes = Little(number, size);
    if (order_ == ELFDATA2MSB) std::reverse(bytes.begin(), bytes.end());
    return bytes;
  }

  Bytes Word(std::uint64_t number) const {
    return Number(kind_ == Kind::k32 ? number : number | std::uint64_t{upper_} << 32, WordSize());
  }

  Bytes FileHeader(std::uint64_t table_offset) const {
    Bytes header(HeaderSize(), file_filler_);
    Put(header, 0, kMagic);
    Put(header, 4, Little(static_cast<std::uint64_t>(class_byte_), 1));
    Put(header, 5, Little(static_cast<std::uint64_t>(data_byte_), 1));
    const bool is_32 = kind_ == Kind::k32;
    Put(header, is_32 ? 32 : 40, Word(claimed_offset_.value_or(table_offset)));
    Put(header, is_32 ? 46 : 58, Number(claimed_entry_size_.value_or(EntrySize()), 2));
    Put(header, is_32 ? 48 : 60, Number(claimed_count_.value_or(sections_.size()), 2));
    return header;
  }

  Bytes SectionHeader(std::uint64_t offset, std::uint64_t size) const {
    Bytes header(EntrySize(), filler_);
    const bool is_32 = kind_ == Kind::k32;
    Put(header, is_32 ? 16 : 24, Word(offset));
    Put(header, is_32 ? 20 : 32, Word(size));
    return header;
  }

  Kind kind_;
  int class_byte_;
  int data_byte_ = kNativeOrder;
  int order_ = kNativeOrder;
  std::optional<std::uint64_t> claimed_offset_;
  std::optional<std::uint64_t> claimed_count_;
  std::optional<std::uint64_t> claimed_entry_size_;
  std::size_t gap_before_contents_ = 0;
  std::size_t gap_before_table_ = 0;
  bool table_first_ = false;
  char filler_ = '\0';
  char file_filler_ = '\0';
  std::uint32_t upper_ = 0;
  std::vector<Entry> sections_;
};

/** A file of one marker section. */
inline Bytes FileWith(const Marker& marker, Kind kind = Kind::k64) {
  return Builder(kind).Section(marker).Build();
}

}  // namespace elf

#endif  // SVCMGR_ELF_BUILDER_H_

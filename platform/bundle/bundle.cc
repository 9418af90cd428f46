// SPDX-License-Identifier: Apache-2.0
#include "bundle.h"

#include <errno.h>
#include <glib.h>
#include <limits.h>
#include <stdlib.h>
#include <string.h>

#include <exception>
#include <functional>
#include <map>
#include <new>
#include <string>
#include <utility>
#include <variant>
#include <vector>

#include "bundle_desktop.h"
#include "owned.h"

namespace {

// One byte more than the value has, so that a borrowed value is never null.
struct Bytes {
  std::vector<unsigned char> storage;
  size_t size() const { return storage.size() - 1; }
};

// Texts, with the array of pointers to them that is lent out.
struct TextArray {
  std::vector<std::string> texts;
  std::vector<const char*> pointers;
};

using Value = std::variant<std::string, Bytes, TextArray>;

}  // namespace

struct _bundle_t {
  std::map<std::string, Value, std::less<>> values;
};

namespace {

bool IsKey(const char* key) { return key && *key; }

// `make` builds the value; it is not called for a key that exists.
template <typename Make>
int Add(bundle* b, const char* key, Make make) try {
  if (b->values.find(key) != b->values.end()) return -EEXIST;
  b->values.emplace(key, make());
  return 0;
} catch (const std::exception&) {
  return -ENOMEM;
}

template <typename T>
int Find(bundle* b, const char* key, T** found) {
  const auto entry = b->values.find(key);
  if (entry == b->values.end()) return -ENOKEY;
  T* value = std::get_if<T>(&entry->second);
  if (!value) return -EINVAL;
  *found = value;
  return 0;
}

Bytes MakeBytes(const void* bytes, size_t size) {
  Bytes made;
  made.storage.resize(size + 1);
  if (size > 0) memcpy(made.storage.data(), bytes, size);
  return made;
}

TextArray MakeTextArray(const char* const* texts, size_t count) {
  TextArray made;
  made.texts.assign(texts, texts + count);
  // One more than there are texts: even an empty array is not null, and a null ends each.
  made.pointers.reserve(count + 1);
  for (const std::string& text : made.texts) made.pointers.push_back(text.c_str());
  made.pointers.push_back(nullptr);
  return made;
}

using VariantPtr = base::Owned<GVariant, g_variant_unref>;

bool IsUtf8(const std::string& text) {
  return g_utf8_validate(text.data(), static_cast<gssize>(text.size()), nullptr);
}

// Null for texts that are not UTF-8.
struct ToVariant {
  GVariant* operator()(const std::string& text) const {
    return IsUtf8(text) ? g_variant_new_string(text.c_str()) : nullptr;
  }
  GVariant* operator()(const Bytes& bytes) const {
    return g_variant_new_fixed_array(G_VARIANT_TYPE_BYTE, bytes.storage.data(), bytes.size(), 1);
  }
  GVariant* operator()(const TextArray& array) const {
    for (const std::string& text : array.texts) {
      if (!IsUtf8(text)) return nullptr;
    }
    return g_variant_new_strv(array.pointers.data(), static_cast<gssize>(array.texts.size()));
  }
};

VariantPtr ToVariantDictionary(const bundle& b) {
  GVariantBuilder builder;
  g_variant_builder_init(&builder, G_VARIANT_TYPE_VARDICT);
  for (const auto& [key, value] : b.values) {
    GVariant* variant = IsUtf8(key) ? std::visit(ToVariant(), value) : nullptr;
    if (!variant) {
      g_variant_builder_clear(&builder);
      return nullptr;
    }
    g_variant_builder_add(&builder, "{sv}", key.c_str(), variant);
  }
  return VariantPtr(g_variant_ref_sink(g_variant_builder_end(&builder)));
}

// The bytes of a variant are in the machine's order; those of a bundle are little-endian.
VariantPtr SwapOnBigEndian(VariantPtr variant) {
#if G_BYTE_ORDER == G_BIG_ENDIAN
  variant.reset(g_variant_byteswap(variant.get()));
#endif
  return variant;
}

int AddVariant(bundle* b, const char* key, GVariant* value) {
  gsize size = 0;
  if (g_variant_is_of_type(value, G_VARIANT_TYPE_STRING)) {
    return bundle_add_str(b, key, g_variant_get_string(value, nullptr));
  }
  if (g_variant_is_of_type(value, G_VARIANT_TYPE_BYTESTRING)) {
    const void* bytes = g_variant_get_fixed_array(value, &size, 1);
    return bundle_add_byte(b, key, bytes ? bytes : "", size);
  }
  if (g_variant_is_of_type(value, G_VARIANT_TYPE_STRING_ARRAY)) {
    const base::Owned<const gchar*, g_free> texts(g_variant_get_strv(value, &size));
    return size > INT_MAX ? -EINVAL
                          : bundle_add_str_array(b, key, texts.get(), static_cast<int>(size));
  }
  return -EINVAL;
}

}  // namespace

bundle* bundle_create(void) { return new (std::nothrow) _bundle_t; }

int bundle_free(bundle* b) {
  if (!b) return -EINVAL;
  delete b;
  return 0;
}

int bundle_add_str(bundle* b, const char* key, const char* str) {
  if (!b || !IsKey(key) || !str) return -EINVAL;
  return Add(b, key, [str] { return std::string(str); });
}

int bundle_get_str(bundle* b, const char* key, char** str) {
  if (!b || !IsKey(key) || !str) return -EINVAL;
  std::string* text = nullptr;
  if (const int error = Find(b, key, &text)) return error;
  *str = text->data();
  return 0;
}

int bundle_add_byte(bundle* b, const char* key, const void* byte, const size_t size) {
  if (!b || !IsKey(key) || (!byte && size > 0)) return -EINVAL;
  return Add(b, key, [byte, size] { return MakeBytes(byte, size); });
}

int bundle_get_byte(bundle* b, const char* key, void** byte, size_t* size) {
  if (!b || !IsKey(key) || !byte || !size) return -EINVAL;
  Bytes* bytes = nullptr;
  if (const int error = Find(b, key, &bytes)) return error;
  *byte = bytes->storage.data();
  *size = bytes->size();
  return 0;
}

int bundle_add_str_array(bundle* b, const char* key, const char** str_array, const int len) {
  if (!b || !IsKey(key) || len < 0 || (!str_array && len > 0)) return -EINVAL;
  for (int i = 0; i < len; ++i) {
    if (!str_array[i]) return -EINVAL;
  }
  return Add(b, key, [=] { return MakeTextArray(str_array, static_cast<size_t>(len)); });
}

const char** bundle_get_str_array(bundle* b, const char* key, int* len) {
  if (!b || !IsKey(key) || !len) return nullptr;
  TextArray* array = nullptr;
  if (Find(b, key, &array) != 0) return nullptr;
  *len = static_cast<int>(array->texts.size());
  return array->pointers.data();
}

int bundle_desktop_encode(bundle* b, unsigned char** bytes, size_t* size) {
  if (!b || !bytes || !size) return -EINVAL;
  VariantPtr variant = ToVariantDictionary(*b);
  if (!variant) return -EINVAL;
  variant = SwapOnBigEndian(std::move(variant));
  const size_t length = g_variant_get_size(variant.get());
  auto* copy = static_cast<unsigned char*>(malloc(length + 1));
  if (!copy) return -ENOMEM;
  g_variant_store(variant.get(), copy);
  *bytes = copy;
  *size = length;
  return 0;
}

bundle* bundle_desktop_decode(const unsigned char* bytes, size_t size) {
  errno = EINVAL;
  if (!bytes && size > 0) return nullptr;
  GBytes* copy = g_bytes_new(bytes, size);
  VariantPtr variant(
      g_variant_ref_sink(g_variant_new_from_bytes(G_VARIANT_TYPE_VARDICT, copy, FALSE)));
  g_bytes_unref(copy);
  // Anything but the one way to write a value is refused; that also bounds the depth.
  if (!g_variant_is_normal_form(variant.get())) return nullptr;
  variant = SwapOnBigEndian(std::move(variant));

  base::Owned<bundle, bundle_free> made(bundle_create());
  int error = made ? 0 : -ENOMEM;
  GVariantIter entries;
  g_variant_iter_init(&entries, variant.get());
  const gchar* key;
  GVariant* value;
  while (!error && g_variant_iter_next(&entries, "{&sv}", &key, &value)) {
    const VariantPtr owned(value);
    error = AddVariant(made.get(), key, value);
  }
  if (error) made.reset();
  errno = error == -ENOMEM ? ENOMEM : EINVAL;
  return made.release();
}

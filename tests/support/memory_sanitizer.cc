// Tells the memory sanitizer which bytes were set by code that was compiled without it: the C++ library, the
// compression libraries and the digest. The linker puts each function here in the place of the one whose
// symbol follows "__wrap_" (cmake/QvxMemorySanitizer.cmake). Class templates of the C++ library are compiled
// with the program and need none, what a function returns counts as set, and the C library is known to the
// sanitizer.
#include <libdeflate.h>
#include <openssl/md5.h>
#include <sanitizer/msan_interface.h>
#include <snappy.h>
#include <zlib.h>

#include <charconv>
#include <cstddef>
#include <exception>
#include <list>
#include <map>
#include <string>
#include <string_view>
#include <typeinfo>

#include "qvx/data/write/path_template.h"

#define QVX_REAL(symbol) __asm__("__real_" symbol)
#define QVX_WRAP(symbol) __asm__("__wrap_" symbol)

namespace {

template <typename T>
void set(T& value) {
  __msan_unpoison(&value, sizeof value);
}

// zlib keeps its place in the stream.
void written(const z_stream& stream, const Bytef* from) {
  __msan_unpoison(&stream, sizeof stream);
  if (from != nullptr) __msan_unpoison(from, static_cast<std::size_t>(stream.next_out - from));
}

}  // namespace

// The links of trees and lists, with which a node begins.

using TreeNode = std::_Rb_tree_node_base;
void real_insert(bool, TreeNode*, TreeNode*, TreeNode&)
    QVX_REAL("_ZSt29_Rb_tree_insert_and_rebalancebPSt18_Rb_tree_node_baseS0_RS_");
void wrap_insert(bool, TreeNode*, TreeNode*, TreeNode&)
    QVX_WRAP("_ZSt29_Rb_tree_insert_and_rebalancebPSt18_Rb_tree_node_baseS0_RS_");
void wrap_insert(bool left, TreeNode* node, TreeNode* parent, TreeNode& header) {
  set(*node);
  real_insert(left, node, parent, header);
}

using ListNode = std::__detail::_List_node_base;
void real_hook(ListNode*, ListNode*) QVX_REAL("_ZNSt8__detail15_List_node_base7_M_hookEPS0_");
void wrap_hook(ListNode*, ListNode*) QVX_WRAP("_ZNSt8__detail15_List_node_base7_M_hookEPS0_");
void wrap_hook(ListNode* node, ListNode* next) {
  set(*node);
  real_hook(node, next);
}

// Texts of numbers.

std::to_chars_result real_to_chars(char*, char*, double, std::chars_format, int)
    QVX_REAL("_ZSt8to_charsPcS_dSt12chars_formati");
std::to_chars_result wrap_to_chars(char*, char*, double, std::chars_format, int)
    QVX_WRAP("_ZSt8to_charsPcS_dSt12chars_formati");
std::to_chars_result wrap_to_chars(char* begin, char* end, double value, std::chars_format format,
                                   int digits) {
  const std::to_chars_result result = real_to_chars(begin, end, value, format, digits);
  __msan_unpoison(begin, static_cast<std::size_t>(result.ptr - begin));
  return result;
}

std::from_chars_result real_from_chars(const char*, const char*, double&, std::chars_format)
    QVX_REAL("_ZSt10from_charsPKcS0_RdSt12chars_format");
std::from_chars_result wrap_from_chars(const char*, const char*, double&, std::chars_format)
    QVX_WRAP("_ZSt10from_charsPKcS0_RdSt12chars_format");
std::from_chars_result wrap_from_chars(const char* begin, const char* end, double& value,
                                       std::chars_format format) {
  const std::from_chars_result result = real_from_chars(begin, end, value, format);
  if (result.ec == std::errc()) set(value);
  return result;
}

// snappy.

bool real_get_length(const char*, std::size_t, std::size_t*)
    QVX_REAL("_ZN6snappy21GetUncompressedLengthEPKcmPm");
bool wrap_get_length(const char*, std::size_t, std::size_t*)
    QVX_WRAP("_ZN6snappy21GetUncompressedLengthEPKcmPm");
bool wrap_get_length(const char* data, std::size_t size, std::size_t* length) {
  const bool known = real_get_length(data, size, length);
  if (known) set(*length);
  return known;
}

bool real_uncompress(const char*, std::size_t, char*) QVX_REAL("_ZN6snappy13RawUncompressEPKcmPc");
bool wrap_uncompress(const char*, std::size_t, char*) QVX_WRAP("_ZN6snappy13RawUncompressEPKcmPc");
bool wrap_uncompress(const char* data, std::size_t size, char* to) {
  const bool done = real_uncompress(data, size, to);
  std::size_t length = 0;
  if (done && wrap_get_length(data, size, &length)) __msan_unpoison(to, length);
  return done;
}

void real_compress(const char*, std::size_t, char*, std::size_t*)
    QVX_REAL("_ZN6snappy11RawCompressEPKcmPcPm");
void wrap_compress(const char*, std::size_t, char*, std::size_t*)
    QVX_WRAP("_ZN6snappy11RawCompressEPKcmPcPm");
void wrap_compress(const char* data, std::size_t size, char* to, std::size_t* length) {
  __msan_check_mem_is_initialized(data, size);
  real_compress(data, size, to, length);
  set(*length);
  __msan_unpoison(to, *length);
}

// Paths with dates: boost has the streams of the C++ library write them. The symbol, as a string that the
// build can read, is longer than a line.
// clang-format off

bool real_expand_path(std::string_view, const qvx::PathFields&, std::string&, std::string&)
    QVX_REAL("_ZN3qvx20expand_path_templateESt17basic_string_viewIcSt11char_traitsIcEERKNS_10PathFieldsERNSt7__cxx1112basic_stringIcS2_SaIcEEESB_");
bool wrap_expand_path(std::string_view, const qvx::PathFields&, std::string&, std::string&)
    QVX_WRAP("_ZN3qvx20expand_path_templateESt17basic_string_viewIcSt11char_traitsIcEERKNS_10PathFieldsERNSt7__cxx1112basic_stringIcS2_SaIcEEESB_");
// clang-format on
bool wrap_expand_path(std::string_view path_template, const qvx::PathFields& fields, std::string& path,
                      std::string& fault) {
  __msan_scoped_disable_interceptor_checks();
  const bool done = real_expand_path(path_template, fields, path, fault);
  __msan_scoped_enable_interceptor_checks();
  for (std::string* const text : {&path, &fault}) {
    set(*text);
    __msan_unpoison(text->data(), text->size());
  }
  return done;
}

extern "C" {

// Exceptions and their texts.

void* __real___cxa_allocate_exception(std::size_t size);
void* __wrap___cxa_allocate_exception(std::size_t size) {
  void* const memory = __real___cxa_allocate_exception(size);
  __msan_unpoison(memory, size);
  return memory;
}

[[noreturn]] void __real___cxa_throw(void* thrown, std::type_info* type, void (*destroy)(void*));
[[noreturn]] void __wrap___cxa_throw(void* thrown, std::type_info* type, void (*destroy)(void*)) {
  void* exception = thrown;
  if (typeid(std::exception).__do_catch(type, &exception, 1))
    __msan_unpoison_string(static_cast<std::exception*>(exception)->what());
  __real___cxa_throw(thrown, type, destroy);
}

// zlib.

int __real_inflateInit2_(z_stream* stream, int window, const char* version, int size);
int __wrap_inflateInit2_(z_stream* stream, int window, const char* version, int size) {
  const int result = __real_inflateInit2_(stream, window, version, size);
  written(*stream, nullptr);
  return result;
}

int __real_inflateReset(z_stream* stream);
int __wrap_inflateReset(z_stream* stream) {
  const int result = __real_inflateReset(stream);
  written(*stream, nullptr);
  return result;
}

int __real_inflate(z_stream* stream, int flush);
int __wrap_inflate(z_stream* stream, int flush) {
  const Bytef* const from = stream->next_out;
  const int result = __real_inflate(stream, flush);
  written(*stream, from);
  return result;
}

int __real_deflateInit2_(z_stream* stream, int level, int method, int window, int memory, int strategy,
                         const char* version, int size);
int __wrap_deflateInit2_(z_stream* stream, int level, int method, int window, int memory, int strategy,
                         const char* version, int size) {
  const int result = __real_deflateInit2_(stream, level, method, window, memory, strategy, version, size);
  written(*stream, nullptr);
  return result;
}

int __real_deflate(z_stream* stream, int flush);
int __wrap_deflate(z_stream* stream, int flush) {
  __msan_check_mem_is_initialized(stream->next_in, stream->avail_in);
  const Bytef* const from = stream->next_out;
  const int result = __real_deflate(stream, flush);
  written(*stream, from);
  return result;
}

// libdeflate.

libdeflate_result __real_libdeflate_gzip_decompress_ex(libdeflate_decompressor* decompressor, const void* in,
                                                       std::size_t in_size, void* out, std::size_t room,
                                                       std::size_t* in_used, std::size_t* out_used);
libdeflate_result __wrap_libdeflate_gzip_decompress_ex(libdeflate_decompressor* decompressor, const void* in,
                                                       std::size_t in_size, void* out, std::size_t room,
                                                       std::size_t* in_used, std::size_t* out_used) {
  const libdeflate_result result =
      __real_libdeflate_gzip_decompress_ex(decompressor, in, in_size, out, room, in_used, out_used);
  if (result == LIBDEFLATE_SUCCESS) {
    set(*in_used);
    set(*out_used);
    __msan_unpoison(out, *out_used);
  }
  return result;
}

// The digest.

int __real_MD5_Init(MD5_CTX* state);
int __wrap_MD5_Init(MD5_CTX* state) {
  set(*state);
  return __real_MD5_Init(state);
}

int __real_MD5_Final(unsigned char* digest, MD5_CTX* state);
int __wrap_MD5_Final(unsigned char* digest, MD5_CTX* state) {
  __msan_unpoison(digest, MD5_DIGEST_LENGTH);
  return __real_MD5_Final(digest, state);
}

}  // extern "C"

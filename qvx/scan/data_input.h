// The bytes of a data file: as they are, or unpacked when the whole file is gzip-compressed.
#pragma once

#include <zlib.h>

#include <cstddef>
#include <cstdint>
#include <memory>
#include <optional>
#include <span>
#include <string>

#include "qvx/support/bytes.h"
#include "qvx/support/file_descriptor.h"

namespace qvx {

// Reads forward. Interrupted and short reads are continued, and a descriptor that does not block is waited
// for. Joined gzip members are one stream; what follows the last of them and is no member is ignored.
class DataInput {
 public:
  DataInput() = default;
  ~DataInput();
  DataInput(const DataInput&) = delete;
  DataInput& operator=(const DataInput&) = delete;

  // False, with errno set, when the file cannot be opened.
  [[nodiscard]] bool open(const char* path);
  // Reads bytes in memory instead, which outlive the input.
  void open(Bytes memory);

  // Is called with the descriptor of the file before each read of it, which may wait.
  struct ReadHook {
    void (*call)(void* context, int descriptor) noexcept = nullptr;
    void* context = nullptr;
  };
  void set_read_hook(ReadHook hook) { read_hook_ = hook; }

  // Reads until `to` is full, the file ends or reading fails. Returns the number of bytes, all of them good:
  // what was unpacked before a fault is handed out. Throws std::bad_alloc.
  std::size_t read(std::span<std::byte> to);

  // The next `size` bytes where they were read to, valid until the next call; fewer when the file ends or
  // reading fails. Nothing, and nothing is read, when they do not fit into the buffer or have to be unpacked:
  // then read() them. Throws std::bad_alloc.
  std::optional<Bytes> view(std::size_t size);

  // Whether a read came to the end of the file.
  bool at_end() const { return at_end_; }

  // Why reading stopped before the end, in the words of the system or of the decompressor; else empty.
  const std::string& fault() const { return fault_; }

  // errno of a failed read of the file itself, else 0.
  int error() const { return error_; }

  // Bytes handed out so far: the position in the unpacked file.
  std::uint64_t position() const { return position_; }

 private:
  static constexpr std::size_t kBufferSize = 64 * 1024;

  enum class Form { unknown, plain, gzip };

  void find_form(std::size_t wanted);
  std::size_t read_plain(std::span<std::byte> to);
  std::size_t inflate_some(std::span<std::byte> to);
  void fill_buffer(std::size_t most);
  Bytes take(std::size_t count);
  std::size_t read_file(std::span<std::byte> to);

  ReadHook read_hook_;
  FileDescriptor file_;  // none: reads memory_
  Bytes memory_;
  Form form_ = Form::unknown;  // of what comes next
  std::unique_ptr<std::byte[]> buffer_;
  Bytes buffered_;                  // read from the file and not used so far
  bool file_ended_ = false;         // nothing more can be read into the buffer
  std::optional<z_stream> stream_;  // from the first gzip member on
  // The decompressor may hold output that had no room: it comes out before more is read, so that a fault of
  // the file cannot stand before it.
  bool output_held_back_ = false;
  bool at_end_ = false;
  int error_ = 0;
  std::string fault_;
  std::uint64_t position_ = 0;
};

}  // namespace qvx

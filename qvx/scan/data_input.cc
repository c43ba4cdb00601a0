#include "qvx/scan/data_input.h"

#include <fcntl.h>
#include <poll.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <cstring>
#include <limits>
#include <new>

#include "qvx/scan/long_path.h"

#if defined(__SANITIZE_ADDRESS__)
#define QVX_HAS_ADDRESS_SANITIZER
#elif defined(__has_feature)
#if __has_feature(address_sanitizer)
#define QVX_HAS_ADDRESS_SANITIZER
#endif
#endif
#ifdef QVX_HAS_ADDRESS_SANITIZER
#include <sanitizer/asan_interface.h>
#endif

namespace qvx {
namespace {

constexpr std::byte kGzipMagic[] = {std::byte{0x1F}, std::byte{0x8B}};
constexpr int kGzipWindowBits = 15 + 16;

bool begins_gzip_member(Bytes bytes) {
  return bytes.size() >= std::size(kGzipMagic) &&
         std::equal(std::begin(kGzipMagic), std::end(kGzipMagic), bytes.begin());
}

// With the address sanitizer, whoever reads past a view that was handed out is caught, although the buffer
// goes on there.
#ifdef QVX_HAS_ADDRESS_SANITIZER
void hide(Bytes bytes) {
  ASAN_POISON_MEMORY_REGION(bytes.data(), bytes.size());
}
void unhide(Bytes bytes) {
  ASAN_UNPOISON_MEMORY_REGION(bytes.data(), bytes.size());
}
#else
void hide(Bytes) {}
void unhide(Bytes) {}
#endif

}  // namespace

DataInput::~DataInput() {
  if (stream_) inflateEnd(&*stream_);
}

bool DataInput::open(const char* path) {
  int number = -1;
  do {
    number = open_path(path, O_RDONLY | O_CLOEXEC);
  } while (number < 0 && errno == EINTR);
  if (number < 0) return false;
  file_ = FileDescriptor(number);
  return true;
}

void DataInput::open(Bytes memory) {
  memory_ = memory;
}

std::size_t DataInput::read(std::span<std::byte> to) {
  std::size_t filled = 0;
  while (filled < to.size() && !at_end_ && fault_.empty()) {
    const std::span<std::byte> rest = to.subspan(filled);
    switch (form_) {
      case Form::unknown:
        find_form(rest.size());
        break;
      case Form::plain:
        filled += read_plain(rest);
        break;
      case Form::gzip:
        filled += inflate_some(rest);
        break;
    }
  }
  position_ += filled;
  return filled;
}

std::optional<Bytes> DataInput::view(std::size_t size) {
  if (form_ != Form::plain || size > kBufferSize) return std::nullopt;
  while (buffered_.size() < size && !file_ended_ && fault_.empty()) {
    // Whole pieces are read ahead, so that none has to be moved.
    const std::size_t ahead = kBufferSize / size * size;
    fill_buffer(ahead - buffered_.size());
  }
  at_end_ = file_ended_;
  const Bytes taken = take(std::min(size, buffered_.size()));
  position_ += taken.size();
  hide({buffered_.data(), buffer_.get() + kBufferSize});
  return taken;
}

// At the start of the file, and behind each gzip member. Not more is read ahead than is wanted: a header read
// with what follows it would put every data block at an odd place in the buffer.
void DataInput::find_form(std::size_t wanted) {
  while (buffered_.size() < std::size(kGzipMagic) && !file_ended_ && fault_.empty())
    fill_buffer(std::max(wanted, std::size(kGzipMagic)));
  if (begins_gzip_member(buffered_)) {
    form_ = Form::gzip;
    if (stream_) {
      inflateReset(&*stream_);
      return;
    }
    stream_.emplace();  // in its place: the decompressor keeps a pointer to it
    if (inflateInit2(&*stream_, kGzipWindowBits) == Z_OK) return;
    stream_.reset();
    throw std::bad_alloc();
  } else if (stream_ || buffered_.empty()) {
    at_end_ = fault_.empty();
  } else {
    form_ = Form::plain;
  }
}

std::size_t DataInput::read_plain(std::span<std::byte> to) {
  // Large data blocks are read where they are wanted; small ones would cost a system call each.
  if (buffered_.empty() && to.size() < kBufferSize) fill_buffer(kBufferSize);
  if (!fault_.empty()) return 0;
  if (buffered_.empty()) {
    const std::size_t count = file_ended_ ? 0 : read_file(to);
    at_end_ = file_ended_;
    return count;
  }
  const Bytes taken = take(std::min(buffered_.size(), to.size()));
  std::copy(taken.begin(), taken.end(), to.begin());
  return taken.size();
}

Bytes DataInput::take(std::size_t count) {
  unhide({buffer_.get(), kBufferSize});
  const Bytes taken = buffered_.first(count);
  buffered_ = buffered_.subspan(count);
  return taken;
}

std::size_t DataInput::inflate_some(std::span<std::byte> to) {
  if (buffered_.empty() && !output_held_back_) {
    fill_buffer(kBufferSize);
    if (!fault_.empty()) return 0;
    if (buffered_.empty()) {
      fault_ = "unexpected end of file";
      return 0;
    }
  }
  const std::size_t room = std::min<std::size_t>(to.size(), std::numeric_limits<uInt>::max());
  stream_->next_in = reinterpret_cast<Bytef*>(const_cast<std::byte*>(buffered_.data()));
  stream_->avail_in = static_cast<uInt>(buffered_.size());
  stream_->next_out = reinterpret_cast<Bytef*>(to.data());
  stream_->avail_out = static_cast<uInt>(room);
  const int result = inflate(&*stream_, Z_NO_FLUSH);
  buffered_ = buffered_.last(stream_->avail_in);
  output_held_back_ = stream_->avail_out == 0;
  switch (result) {
    case Z_OK:
    case Z_BUF_ERROR:
      break;
    case Z_STREAM_END:
      form_ = Form::unknown;
      break;
    case Z_MEM_ERROR:
      throw std::bad_alloc();
    default:
      fault_ = stream_->msg != nullptr ? stream_->msg : "compressed data error";
      break;
  }
  return room - stream_->avail_out;
}

// Adds up to `most` bytes to the buffer.
void DataInput::fill_buffer(std::size_t most) {
  if (buffer_ == nullptr) buffer_ = std::make_unique_for_overwrite<std::byte[]>(kBufferSize);
  const std::size_t kept = buffered_.size();
  unhide({buffer_.get(), kBufferSize});
  std::copy_n(buffered_.begin(), kept, buffer_.get());
  const std::size_t count =
      file_ended_ ? 0 : read_file({buffer_.get() + kept, std::min(most, kBufferSize - kept)});
  buffered_ = Bytes(buffer_.get(), kept + count);
}

std::size_t DataInput::read_file(std::span<std::byte> to) {
  if (!file_) {
    const std::size_t count = std::min(to.size(), memory_.size());
    std::copy_n(memory_.begin(), count, to.begin());
    memory_ = memory_.subspan(count);
    file_ended_ = count == 0;
    return count;
  }
  for (;;) {
    if (read_hook_.call != nullptr) read_hook_.call(read_hook_.context, file_.get());
    const ssize_t count = ::read(file_.get(), to.data(), to.size());
    if (count > 0) return static_cast<std::size_t>(count);
    if (count == 0) {
      file_ended_ = true;
      return 0;
    }
    if (errno == EINTR) continue;
    if (errno == EAGAIN) {
      pollfd waiting{file_.get(), POLLIN, 0};
      if (poll(&waiting, 1, -1) >= 0 || errno == EINTR) continue;
    }
    error_ = errno;
    fault_ = std::strerror(error_);
    return 0;
  }
}

}  // namespace qvx

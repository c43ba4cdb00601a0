// Blob pages: a page that carries one blob block of opaque bytes at the start of its data area. Its
// filled_bytes stays 720, deliberately, so such a page is never saved as data.
#pragma once

#include "qvx/data/page.h"
#include "qvx/support/bytes.h"

namespace qvx {

// A regular page of exactly the size that the data needs, of this source and stamped with the current time.
// The data is copied. Null when memory is short.
PagePtr blob_page_create(const qvx_source& source, Bytes data) noexcept;

// Writes a blob block with the data at the start of the data area; false when the page is too small for it.
bool blob_page_fill(qvx_data_page& page, Bytes data) noexcept;

bool page_is_blob(const qvx_data_page& page) noexcept;
void page_mark_blob(qvx_data_page& page) noexcept;

}  // namespace qvx

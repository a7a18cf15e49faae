// SPDX-License-Identifier: Apache-2.0
// File transfers of the HTTP client: a body saved to a file (never half-written under its name)
// and a file sent as a POST body.
#pragma once

#include <cstdint>

namespace tw::httpclient {

// The body framed as head says, written to a temporary file beside path and renamed to path
// only when it arrived complete; true then, with its byte count in *length_out (optional).
bool ReceiveFile(int32_t socket, const char* head, const char* path, int64_t* length_out) noexcept;
// GET url (extra_headers as for a GET) and save a 2xx response's body as ReceiveFile does.
bool DownloadFile(const char* url, const char* extra_headers, const char* path,
                  int64_t* length_out) noexcept;
// POST the file at path as the body (content_type, its size as Content-Length); true when it
// went out whole and the answer's status is 2xx. *status_out (optional) gets the status, 0
// when no answer head arrived.
bool PostFile(const char* url, const char* extra_headers, const char* path,
              const char* content_type, int32_t* status_out) noexcept;

}  // namespace tw::httpclient

#include "common/curlimpl.h"

#include <algorithm>
#include <cstdlib>
#include <cstring>
#include <event2/buffer.h>
#include <fcntl.h>
#include <limits>
#include <sys/socket.h>

namespace {

constexpr long kLowSpeedTimeoutSeconds = 20;
constexpr long kMaxRedirects = 32;
constexpr int kSendBufferBytes = 0x100000;

using Buffer = std::unique_ptr<evbuffer, decltype(&evbuffer_free)>;

// libcurl's write callback: appends to an evbuffer. A response longer than a result can tell the
// length of fails the transfer.
size_t WriteToBuffer(char* data, size_t size, size_t count, void* buffer) {
  auto* collected = static_cast<evbuffer*>(buffer);
  const size_t bytes = size * count;
  if (bytes > std::numeric_limits<unsigned int>::max() - evbuffer_get_length(collected) ||
      evbuffer_add(collected, data, bytes) != 0) {
    return 0;
  }
  return bytes;
}

// libcurl's read callback over a CURLReadBuffer.
size_t ReadFromBuffer(char* data, size_t size, size_t count, void* buffer) {
  auto* source = static_cast<CURLReadBuffer*>(buffer);
  const long long left = std::max(0LL, source->length - source->position);
  const size_t bytes = std::min(size * count, static_cast<size_t>(left));
  if (bytes == 0) {
    return 0;
  }
  std::memcpy(data, source->data + source->position, bytes);
  source->position += static_cast<long long>(bytes);
  return bytes;
}

// libcurl's seek callback over a CURLReadBuffer. A position past the end reads as the end.
int SeekInBuffer(void* buffer, curl_off_t offset, int origin) {
  auto* source = static_cast<CURLReadBuffer*>(buffer);
  if (source == nullptr) {
    return CURL_SEEKFUNC_FAIL;
  }
  long long base = 0;
  if (origin == SEEK_CUR) {
    base = source->position;
  } else if (origin == SEEK_END) {
    base = source->length;
  }
  long long position = 0;
  if (__builtin_add_overflow(base, static_cast<long long>(offset), &position) || position < 0) {
    return CURL_SEEKFUNC_FAIL;
  }
  source->position = position;
  return CURL_SEEKFUNC_OK;
}

int PrepareSocket(void*, curl_socket_t socket, curlsocktype) {
  (void)::fcntl(socket, F_SETFD, FD_CLOEXEC);  // cannot fail for an open socket
  // A smaller buffer only costs speed, so the answer does not matter.
  (void)::setsockopt(socket, SOL_SOCKET, SO_SNDBUF, &kSendBufferBytes, sizeof(kSendBufferBytes));
  return CURL_SOCKOPT_OK;
}

// Moves `length` bytes out of the buffer into a new zeroed block with `extra` bytes to spare.
std::shared_ptr<char> TakeOut(evbuffer* buffer, size_t length, size_t extra) {
  std::shared_ptr<char> block(static_cast<char*>(std::calloc(length + extra, 1)), std::free);
  if (block != nullptr) {
    (void)evbuffer_remove(buffer, block.get(), length);  // callers ask for what is there
  }
  return block;
}

_CURLRTN NoHandle() {
  _CURLRTN result;
  result.code = CURLE_FAILED_INIT;
  return result;
}

std::string TakeText(char* text, int length) {
  std::string copy;
  if (text != nullptr) {
    copy.assign(text, static_cast<size_t>(length));
    curl_free(text);
  }
  return copy;
}

}  // namespace

// What one transfer lends to the easy handle. It is taken back at the end, so that no later request
// finds a pointer to something that is gone or a setting that was not meant for it.
class CURLImpl::Transfer {
 public:
  explicit Transfer(CURLImpl& performer)
      : curl(performer.easy.get()), owner(performer), header_lines(performer.BuildHeader()) {
    owner.error_text.fill('\0');
    curl_easy_setopt(curl, CURLOPT_HTTPHEADER, header_lines);
    if (!owner.request.empty()) {
      curl_easy_setopt(curl, CURLOPT_CUSTOMREQUEST, owner.request.c_str());
    }
  }

  ~Transfer() {
    curl_easy_setopt(curl, CURLOPT_HTTPHEADER, static_cast<curl_slist*>(nullptr));
    curl_easy_setopt(curl, CURLOPT_CUSTOMREQUEST, static_cast<char*>(nullptr));
    curl_easy_setopt(curl, CURLOPT_POSTFIELDS, static_cast<char*>(nullptr));
    curl_easy_setopt(curl, CURLOPT_HEADER, 0L);
    curl_easy_setopt(curl, CURLOPT_WRITEFUNCTION, static_cast<curl_write_callback>(nullptr));
    curl_easy_setopt(curl, CURLOPT_WRITEDATA, static_cast<void*>(nullptr));
    if (seekable) {
      curl_easy_setopt(curl, CURLOPT_SEEKFUNCTION, static_cast<curl_seek_callback>(nullptr));
      curl_easy_setopt(curl, CURLOPT_SEEKDATA, static_cast<void*>(nullptr));
    }
    curl_slist_free_all(header_lines);
  }

  Transfer(const Transfer&) = delete;
  Transfer& operator=(const Transfer&) = delete;

  void CollectResponse() const {
    curl_easy_setopt(curl, CURLOPT_WRITEFUNCTION, WriteToBuffer);
    curl_easy_setopt(curl, CURLOPT_WRITEDATA, buffer.get());
  }

  void MakeSeekable(void* descriptor) {
    seekable = true;
    curl_easy_setopt(curl, CURLOPT_SEEKFUNCTION, SeekInBuffer);
    curl_easy_setopt(curl, CURLOPT_SEEKDATA, descriptor);
  }

  _CURLRTN Perform(const std::string& request_url) const {
    _CURLRTN result;
    curl_easy_setopt(curl, CURLOPT_URL, request_url.c_str());
    result.code = buffer != nullptr ? curl_easy_perform(curl) : CURLE_OUT_OF_MEMORY;
    if (result.code == CURLE_OK) {
      curl_easy_getinfo(curl, CURLINFO_RESPONSE_CODE, &result.response);
      curl_easy_getinfo(curl, CURLINFO_SPEED_DOWNLOAD, &result.download_speed);
      curl_easy_getinfo(curl, CURLINFO_SPEED_UPLOAD, &result.upload_speed);
    }
    result.error = owner.error_text.data();
    return result;
  }

  void TakeHeader(_CURLRTN& result) const {
    long header_bytes = 0;
    curl_easy_getinfo(curl, CURLINFO_HEADER_SIZE, &header_bytes);
    const size_t collected = evbuffer_get_length(buffer.get());
    const size_t length = std::min(collected, static_cast<size_t>(std::max(0L, header_bytes)));
    if (length != 0) {
      result.header = TakeOut(buffer.get(), length, 1);
      result.header_length = static_cast<unsigned int>(length);
    }
  }

  void TakeBody(_CURLRTN& result) const {
    const size_t length = evbuffer_get_length(buffer.get());
    if (length != 0) {
      result.body = TakeOut(buffer.get(), length, 0);
      result.body_length = static_cast<unsigned int>(length);
    }
  }

 private:
  CURL* const curl;
  CURLImpl& owner;
  curl_slist* const header_lines;
  const Buffer buffer{evbuffer_new(), &evbuffer_free};
  bool seekable = false;
};

CURLImpl::CURLImpl() : easy(curl_easy_init(), [](CURL* curl) { curl_easy_cleanup(curl); }) {
  CURL* const curl = easy.get();
  query.max_load_factor(1.0F);
  headers.max_load_factor(1.0F);
  curl_easy_setopt(curl, CURLOPT_HTTP_VERSION, static_cast<long>(CURL_HTTP_VERSION_1_1));
  curl_easy_setopt(curl, CURLOPT_CONNECTTIMEOUT, static_cast<long>(connect_timeout_s));
  curl_easy_setopt(curl, CURLOPT_LOW_SPEED_LIMIT, 1L);
  curl_easy_setopt(curl, CURLOPT_LOW_SPEED_TIME, kLowSpeedTimeoutSeconds);
  curl_easy_setopt(curl, CURLOPT_NOSIGNAL, 1L);
  curl_easy_setopt(curl, CURLOPT_FOLLOWLOCATION, 1L);
  curl_easy_setopt(curl, CURLOPT_MAXREDIRS, kMaxRedirects);
  curl_easy_setopt(curl, CURLOPT_ACCEPT_ENCODING, "");
  curl_easy_setopt(curl, CURLOPT_USERAGENT, "Velmora(gzip)");
  curl_easy_setopt(curl, CURLOPT_SSL_VERIFYPEER, 0L);
  curl_easy_setopt(curl, CURLOPT_SSL_VERIFYHOST, 0L);
  curl_easy_setopt(curl, CURLOPT_NOPROGRESS, 1L);
}

CURLImpl::~CURLImpl() {
  curl_formfree(form);
}

void CURLImpl::Clear() {
  CURL* const curl = easy.get();
  progress = {};
  SetPost(nullptr);
  url.clear();
  request.clear();
  curl_easy_setopt(curl, CURLOPT_HEADER, 0L);
  curl_easy_setopt(curl, CURLOPT_CUSTOMREQUEST, static_cast<char*>(nullptr));
  curl_easy_setopt(curl, CURLOPT_WRITEDATA, static_cast<void*>(nullptr));
  curl_easy_setopt(curl, CURLOPT_WRITEFUNCTION, static_cast<curl_write_callback>(nullptr));
  curl_easy_setopt(curl, CURLOPT_READFUNCTION, static_cast<curl_read_callback>(nullptr));
  curl_easy_setopt(curl, CURLOPT_READDATA, static_cast<void*>(nullptr));
  curl_easy_setopt(curl, CURLOPT_POSTFIELDS, static_cast<char*>(nullptr));
  curl_easy_setopt(curl, CURLOPT_POSTFIELDSIZE_LARGE, curl_off_t{0});
  curl_easy_setopt(curl, CURLOPT_SEEKFUNCTION, static_cast<curl_seek_callback>(nullptr));
  curl_easy_setopt(curl, CURLOPT_SEEKDATA, static_cast<void*>(nullptr));
  curl_easy_setopt(curl, CURLOPT_INFILESIZE_LARGE, curl_off_t{0});
  curl_easy_setopt(curl, CURLOPT_MAX_SEND_SPEED_LARGE, curl_off_t{0});
  curl_easy_setopt(curl, CURLOPT_MAX_RECV_SPEED_LARGE, curl_off_t{0});
  curl_easy_setopt(curl, CURLOPT_NOPROGRESS, 1L);
  curl_easy_setopt(curl, CURLOPT_XFERINFOFUNCTION, static_cast<curl_xferinfo_callback>(nullptr));
  curl_easy_setopt(curl, CURLOPT_XFERINFODATA, static_cast<void*>(nullptr));
  curl_easy_setopt(curl, CURLOPT_LOW_SPEED_TIME, kLowSpeedTimeoutSeconds);
  query.clear();
  headers.clear();
}

_CURLRTN CURLImpl::PerformGet(void* write_function, void* write_data) {
  if (easy == nullptr) {
    return NoHandle();
  }
  const Transfer transfer(*this);
  curl_easy_setopt(easy.get(), CURLOPT_HTTPGET, 1L);
  if (write_function == nullptr) {
    transfer.CollectResponse();
  } else {
    curl_easy_setopt(easy.get(), CURLOPT_WRITEFUNCTION,
                     reinterpret_cast<curl_write_callback>(write_function));
    curl_easy_setopt(easy.get(), CURLOPT_WRITEDATA, write_data);
  }
  _CURLRTN result = transfer.Perform(ComposeURL(BuildQueryString(true)));
  if (result.code == CURLE_OK) {
    transfer.TakeBody(result);
  }
  return result;
}

_CURLRTN CURLImpl::PerformPost(std::string body) {
  CURLReadBuffer source{
      .data = body.data(), .position = 0, .length = static_cast<long long>(body.size())};
  _CURLRTN result = PerformPost(reinterpret_cast<void*>(ReadFromBuffer), &source, -1);
  curl_easy_setopt(easy.get(), CURLOPT_READFUNCTION, static_cast<curl_read_callback>(nullptr));
  curl_easy_setopt(easy.get(), CURLOPT_READDATA, static_cast<void*>(nullptr));
  return result;
}

_CURLRTN CURLImpl::PerformPost(void* read_function, void* read_data, long long size) {
  if (easy == nullptr) {
    return NoHandle();
  }
  CURL* const curl = easy.get();
  Transfer transfer(*this);
  const std::string query_text = BuildQueryString(true);
  const std::string body = read_function == nullptr ? query_text : std::string();
  if (size == -1 && read_data != nullptr) {
    size = static_cast<CURLReadBuffer*>(read_data)->length;
    if (read_function != nullptr) {
      transfer.MakeSeekable(read_data);
    }
  } else if (size == -1) {
    size = static_cast<long long>(body.size());
  }

  curl_easy_setopt(curl, CURLOPT_POST, 1L);
  curl_easy_setopt(curl, CURLOPT_HEADER, 1L);
  transfer.CollectResponse();
  if (read_function == nullptr) {
    // libcurl takes the size at its word, so it must not reach beyond the text.
    size = std::clamp(size, 0LL, static_cast<long long>(body.size()));
    curl_easy_setopt(curl, CURLOPT_POSTFIELDS, body.c_str());
  } else {
    curl_easy_setopt(curl, CURLOPT_READFUNCTION,
                     reinterpret_cast<curl_read_callback>(read_function));
    if (read_data != nullptr) {
      curl_easy_setopt(curl, CURLOPT_READDATA, read_data);
    }
  }
  if (form != nullptr) {
    curl_easy_setopt(curl, CURLOPT_HTTPPOST, form);
  } else {
    curl_easy_setopt(curl, CURLOPT_POSTFIELDSIZE_LARGE, static_cast<curl_off_t>(size));
  }

  _CURLRTN result = transfer.Perform(read_function == nullptr ? url : ComposeURL(query_text));
  if (result.code == CURLE_OK) {
    transfer.TakeHeader(result);
    transfer.TakeBody(result);
  }
  return result;
}

void CURLImpl::SetPost(curl_httppost* multipart) {
  if (form != nullptr) {
    curl_easy_setopt(easy.get(), CURLOPT_HTTPPOST, static_cast<curl_httppost*>(nullptr));
    curl_easy_setopt(easy.get(), CURLOPT_HTTPGET, 1L);  // the line above made it a form's POST
    curl_formfree(form);
  }
  form = multipart;
}

std::string CURLImpl::ComposeURL(const std::string& query_text) const {
  if (query_text.empty()) {
    return url;
  }
  return url + (url.find('?') == std::string::npos ? "?" : "&") + query_text;
}

std::string CURLImpl::BuildQueryString(bool escape) const {
  std::string text;
  for (const auto& [name, value] : query) {
    if (!text.empty()) {
      text += '&';
    }
    text.append(name).append("=").append(escape ? Escape(value) : value);
  }
  return text;
}

curl_slist* CURLImpl::BuildHeader() const {
  curl_slist* lines = nullptr;
  for (const auto& [name, value] : headers) {
    const std::string line = std::string(name).append(": ").append(value);
    if (curl_slist* longer = curl_slist_append(lines, line.c_str())) {
      lines = longer;
    }
  }
  return lines;
}

std::string CURLImpl::Escape(const std::string& text) const {
  if (text.empty()) {
    return {};
  }
  char* const escaped = curl_easy_escape(easy.get(), text.data(), static_cast<int>(text.size()));
  return TakeText(escaped, escaped != nullptr ? static_cast<int>(std::strlen(escaped)) : 0);
}

std::string CURLImpl::Unescape(const std::string& text) const {
  if (text.empty()) {
    return {};
  }
  int length = 0;
  char* const plain =
      curl_easy_unescape(easy.get(), text.data(), static_cast<int>(text.size()), &length);
  return TakeText(plain, length);
}

void CURLImpl::SetSpeedLimit(long long bytes_per_second) {
  const curl_off_t limit = bytes_per_second;
  curl_easy_setopt(easy.get(), CURLOPT_MAX_SEND_SPEED_LARGE, limit);
  curl_easy_setopt(easy.get(), CURLOPT_MAX_RECV_SPEED_LARGE, limit);
}

void CURLImpl::SetLowSpeedTimeout(long seconds) {
  curl_easy_setopt(easy.get(), CURLOPT_LOW_SPEED_TIME, seconds);
}

void CURLImpl::SetSendBuffer() {
  curl_easy_setopt(easy.get(), CURLOPT_SOCKOPTFUNCTION, PrepareSocket);
}

void CURLImpl::SetPostFileSize(long long bytes) {
  curl_easy_setopt(easy.get(), CURLOPT_INFILESIZE_LARGE, static_cast<curl_off_t>(bytes));
}

void CURLImpl::BindHandle(const std::shared_ptr<_FS_HANDLE>& handle) {
  progress = handle == nullptr ? UploadProgress{}
                               : UploadProgress{.callback = handle->upload_progress,
                                                .context = handle->upload_context,
                                                .easy = easy.get()};
  curl_easy_setopt(easy.get(), CURLOPT_XFERINFOFUNCTION, ReportProgress);
  curl_easy_setopt(easy.get(), CURLOPT_XFERINFODATA, &progress);
  curl_easy_setopt(easy.get(), CURLOPT_NOPROGRESS, 0L);
}

int CURLImpl::ReportProgress(void* binding, curl_off_t, curl_off_t, curl_off_t upload_total,
                             curl_off_t uploaded) {
  const auto* bound = static_cast<const UploadProgress*>(binding);
  if (bound != nullptr && bound->callback != nullptr) {
    double speed = 0;
    curl_easy_getinfo(bound->easy, CURLINFO_SPEED_UPLOAD, &speed);
    bound->callback(upload_total, uploaded, bound->context, speed);
  }
  return 0;
}

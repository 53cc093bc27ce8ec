#pragma once

#include <array>
#include <curl/curl.h>
#include <memory>
#include <sstream>
#include <string>
#include <unordered_map>

#include "interfaces/filesystem.h"

// What a transfer came to. All zero or empty where the transfer did not get that far.
struct _CURLRTN {
  int code = 0;                    // a CURLcode; CURLE_FAILED_INIT without an easy handle
  std::string error;               // libcurl's words, when a derived class collects them
  long response = 0;               // HTTP status; one that tells of an error is not a failure
  std::shared_ptr<char> body;      // body_length bytes, no terminator
  unsigned int body_length = 0;    // bytes
  std::shared_ptr<char> header;    // header_length bytes and a zero; POST only
  unsigned int header_length = 0;  // bytes, the zero not counted
  double upload_speed = 0;         // bytes per second
  double download_speed = 0;       // bytes per second
};

// A text in memory as the built-in read and seek callbacks see it.
struct CURLReadBuffer {
  const char* data = nullptr;
  long long position = 0;  // bytes
  long long length = 0;    // bytes
};

// A reusable HTTP request over one libcurl easy handle: set URL, parameters, headers and method,
// then perform. What was set stays for the next request until Clear; what a request lent to the
// handle while it ran does not.
// Owns:    the easy handle with its connections, and the form given to SetPost.
// Threads: one at a time; an object is never shared. It neither copies nor moves, because libcurl
//          holds pointers into it.
// Errors:  come back in _CURLRTN; nothing throws. Certificates are not verified unless the caller
//          says so on the handle.
class CURLImpl {
 public:
  using Table = std::unordered_map<std::string, std::string>;

  CURLImpl();
  virtual ~CURLImpl();
  CURLImpl(const CURLImpl&) = delete;
  CURLImpl& operator=(const CURLImpl&) = delete;

  // Back to a fresh request. The connections and the constructor's other defaults stay.
  virtual void Clear();

  // GET. Without a write function (a libcurl write callback) the body is collected in the result;
  // with one, it and its data go to libcurl as they are.
  virtual _CURLRTN PerformGet(void* write_function, void* write_data);

  // POST of a text, which is sent again when a redirect asks for it.
  virtual _CURLRTN PerformPost(std::string body);

  // POST. Without a read function (a libcurl read callback) the parameters are the body; with one,
  // it gives `size` bytes and the parameters go into the URL. A size of -1 with data means that the
  // data is a CURLReadBuffer, which brings its length and can be rewound.
  virtual _CURLRTN PerformPost(void* read_function, void* read_data, long long size);

  [[nodiscard]] CURL* GetCURL() const { return easy.get(); }

  void SetURL(const std::string& text) { url = text; }
  [[nodiscard]] const std::string& GetURL() const { return url; }

  // The method; empty: the one that the operation implies.
  void SetRequest(const std::string& method) { request = method; }
  [[nodiscard]] const std::string& GetRequest() const { return request; }

  // Takes a multipart form over, for the POSTs until Clear.
  void SetPost(curl_httppost* multipart);

  // Values are rendered with operator<<; a later value replaces an earlier one.
  template <typename T>
  void AddQuery(const std::string& name, const T& value) {
    query[name] = Render(value);
  }
  template <typename T>
  void AddHeader(const std::string& name, const T& value) {
    headers[name] = Render(value);
  }
  [[nodiscard]] Table& GetQuery() { return query; }
  [[nodiscard]] Table& GetHeader() { return headers; }

  // "name=value" pairs joined by "&", in no particular order. Names are never encoded.
  [[nodiscard]] std::string BuildQueryString(bool escape) const;

  // A new list of header lines, the caller's to free; null when there are none.
  [[nodiscard]] curl_slist* BuildHeader() const;

  [[nodiscard]] std::string Escape(const std::string& text) const;
  [[nodiscard]] std::string Unescape(const std::string& text) const;

  void SetSpeedLimit(long long bytes_per_second);  // each way; 0: no limit
  void SetLowSpeedTimeout(long seconds);           // how long less than 1 byte a second is borne
  void SetSendBuffer();                            // 1 MiB for the sockets opened from now on
  void SetPostFileSize(long long bytes);

  // Reports the progress of uploads to the handle's callback until Clear. Copies what it needs.
  void BindHandle(const std::shared_ptr<_FS_HANDLE>& handle);

  void SetSSLDefaults() {}

 protected:
  struct UploadProgress {
    FS_PROGRESS callback = nullptr;
    void* context = nullptr;
    CURL* easy = nullptr;
  };

  // The URL followed by the query text, if any.
  [[nodiscard]] std::string ComposeURL(const std::string& query_text) const;

  std::shared_ptr<CURL> easy;  // empty when libcurl could not make one
  curl_httppost* form = nullptr;
  UploadProgress progress;
  Table query;
  Table headers;
  std::string url;
  std::string request;
  long long connect_timeout_s = 10;
  std::array<char, CURL_ERROR_SIZE> error_text{};  // cleared before each transfer

 private:
  template <typename T>
  static std::string Render(const T& value) {
    std::ostringstream text;
    text << value;
    return text.str();
  }

  static int ReportProgress(void* binding, curl_off_t download_total, curl_off_t downloaded,
                            curl_off_t upload_total, curl_off_t uploaded);

  class Transfer;
};

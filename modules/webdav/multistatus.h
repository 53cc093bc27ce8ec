#pragma once

#include <functional>
#include <memory>
#include <optional>
#include <string>
#include <string_view>
#include <vector>

struct _xmlParserCtxt;  // NOLINT(bugprone-reserved-identifier): the library's name

namespace tarn::webdav {

// What a server says about one file or folder.
struct Resource {
  std::string href;  // as it stands in the answer
  int status = 0;    // of the resource as a whole; 0: none was given, which means that it is fine
  bool is_folder = false;
  std::optional<unsigned long long> size;    // bytes
  std::optional<long long> modified;         // seconds since 1970
  std::string etag;                          // as the server writes it; empty: none
  std::optional<long long> quota_available;  // bytes; below 0 where servers say "unknown"
  std::optional<long long> quota_used;       // bytes
};

// Reads a multistatus document while it arrives. Documents come from strangers: no document type,
// no entities but the predefined ones, nothing fetched, and bounds for depth, texts, the number of
// resources and the whole.
// Threads: one at a time.
class MultistatusReader {
 public:
  using Sink = std::function<void(Resource)>;

  // Every resource that has a place goes to the sink as soon as it is complete. What the sink
  // throws fails the reading.
  explicit MultistatusReader(Sink sink);
  ~MultistatusReader();
  MultistatusReader(const MultistatusReader&) = delete;
  MultistatusReader& operator=(const MultistatusReader&) = delete;

  // False: this is no multistatus document, or one beyond the bounds. Nothing more is read then.
  [[nodiscard]] bool Feed(const char* data, size_t length_bytes);

  // The document has ended. False: it was not complete.
  [[nodiscard]] bool Finish();

 private:
  enum class Tag;
  struct Sax;  // the parser's callbacks

  static Tag TagOf(std::string_view name);
  void StartElement(Tag tag);
  void EndElement();
  void Text(std::string_view part);
  void EndResponse();
  void EndProperty(Tag tag);
  void EndPropstat();
  void Fail() noexcept;

  struct FreeParser {
    void operator()(_xmlParserCtxt* context) const;
  };

  Sink sink;
  std::unique_ptr<_xmlParserCtxt, FreeParser> parser;
  bool failed = false;
  size_t read_bytes = 0;
  size_t resources = 0;   // given to the sink
  std::vector<Tag> open;  // elements around the current place, outermost first
  std::string text;       // of the innermost element
  Resource resource;      // being read
  Resource properties;    // of the propstat being read; they count if its status is good
  int propstat_status = 0;
};

}  // namespace tarn::webdav

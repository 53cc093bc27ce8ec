#include "modules/webdav/multistatus.h"

#include <array>
#include <charconv>
#include <curl/curl.h>
#include <libxml/parser.h>
#include <limits>
#include <utility>

namespace tarn::webdav {

namespace {

constexpr size_t kMaxDocumentBytes = size_t{256} * 1024 * 1024;
constexpr size_t kMaxResources = 500'000;
constexpr size_t kMaxTextBytes = size_t{64} * 1024;
constexpr size_t kMaxDepth = 64;
constexpr std::string_view kDavNamespace = "DAV:";
constexpr std::string_view kBlanks = " \t\r\n";

std::string_view Trim(std::string_view text) {
  const size_t first = text.find_first_not_of(kBlanks);
  return first == std::string_view::npos
             ? std::string_view()
             : text.substr(first, text.find_last_not_of(kBlanks) - first + 1);
}

template <typename Number>
std::optional<Number> NumberOf(std::string_view text) {
  Number number{};
  const auto [end, error] = std::from_chars(text.data(), text.data() + text.size(), number);
  if (error != std::errc() || end != text.data() + text.size()) {
    return std::nullopt;
  }
  return number;
}

// "HTTP/1.1 404 Not Found" is 404; 0 for what is no status line.
int StatusOf(std::string_view line) {
  const size_t blank = line.find(' ');
  return blank == std::string_view::npos ? 0 : NumberOf<int>(line.substr(blank + 1, 3)).value_or(0);
}

bool IsGood(int status) {
  return status == 0 || (status >= 200 && status < 300);
}

std::string_view View(const xmlChar* text) {
  return text == nullptr ? std::string_view() : reinterpret_cast<const char*>(text);
}

}  // namespace

enum class MultistatusReader::Tag {
  kOther,
  kMultistatus,
  kResponse,
  kHref,
  kStatus,
  kPropstat,
  kProp,
  kResourceType,
  kCollection,
  kSize,
  kModified,
  kEtag,
  kQuotaAvailable,
  kQuotaUsed,
};

MultistatusReader::Tag MultistatusReader::TagOf(std::string_view name) {
  struct Name {
    std::string_view name;
    Tag tag;
  };
  static constexpr std::array known_names = {
      Name{"multistatus", Tag::kMultistatus},
      Name{"response", Tag::kResponse},
      Name{"href", Tag::kHref},
      Name{"status", Tag::kStatus},
      Name{"propstat", Tag::kPropstat},
      Name{"prop", Tag::kProp},
      Name{"resourcetype", Tag::kResourceType},
      Name{"collection", Tag::kCollection},
      Name{"getcontentlength", Tag::kSize},
      Name{"getlastmodified", Tag::kModified},
      Name{"getetag", Tag::kEtag},
      Name{"quota-available-bytes", Tag::kQuotaAvailable},
      Name{"quota-used-bytes", Tag::kQuotaUsed},
  };
  for (const Name& known : known_names) {
    if (known.name == name) {
      return known.tag;
    }
  }
  return Tag::kOther;
}

// The parser is no C++: no exception may pass through it.
struct MultistatusReader::Sax {
  template <typename Step>
  static void Take(void* context, Step step) noexcept {
    auto& reader = *static_cast<MultistatusReader*>(context);
    try {
      step(reader);
    } catch (...) {
      reader.Fail();
    }
  }
  static void StartElement(void* reader, const xmlChar* name, const xmlChar*, const xmlChar* uri,
                           int, const xmlChar**, int, int, const xmlChar**) noexcept {
    const Tag tag = View(uri) == kDavNamespace ? TagOf(View(name)) : Tag::kOther;
    Take(reader, [tag](MultistatusReader& self) { self.StartElement(tag); });
  }
  static void EndElement(void* reader, const xmlChar*, const xmlChar*, const xmlChar*) noexcept {
    Take(reader, [](MultistatusReader& self) { self.EndElement(); });
  }
  static void Characters(void* reader, const xmlChar* part, int length) noexcept {
    const std::string_view text(reinterpret_cast<const char*>(part), static_cast<size_t>(length));
    Take(reader, [text](MultistatusReader& self) { self.Text(text); });
  }
  static void DocumentType(void* reader, const xmlChar*, const xmlChar*, const xmlChar*) noexcept {
    static_cast<MultistatusReader*>(reader)->Fail();
  }

  static xmlSAXHandler Handler() {
    xmlSAXHandler handler{};
    handler.initialized = XML_SAX2_MAGIC;
    handler.startElementNs = StartElement;
    handler.endElementNs = EndElement;
    handler.characters = Characters;
    handler.cdataBlock = Characters;
    handler.internalSubset = DocumentType;
    return handler;
  }
};

void MultistatusReader::FreeParser::operator()(_xmlParserCtxt* context) const {
  xmlFreeParserCtxt(context);
}

MultistatusReader::MultistatusReader(Sink resource_sink) : sink(std::move(resource_sink)) {
  xmlSAXHandler handler = Sax::Handler();
  parser.reset(xmlCreatePushParserCtxt(&handler, this, nullptr, 0, nullptr));
  if (parser != nullptr) {
    (void)xmlCtxtUseOptions(parser.get(), XML_PARSE_NONET | XML_PARSE_NOERROR |
                                              XML_PARSE_NOWARNING);  // all of them are known
  }
}

MultistatusReader::~MultistatusReader() = default;

bool MultistatusReader::Feed(const char* data, size_t length_bytes) {
  read_bytes += length_bytes;
  if (parser == nullptr || failed || read_bytes > kMaxDocumentBytes ||
      length_bytes > static_cast<size_t>(std::numeric_limits<int>::max())) {
    failed = true;
    return false;
  }
  failed |= xmlParseChunk(parser.get(), data, static_cast<int>(length_bytes), 0) != 0;
  return !failed;
}

bool MultistatusReader::Finish() {
  if (parser == nullptr || failed) {
    return false;
  }
  return xmlParseChunk(parser.get(), nullptr, 0, 1) == 0 && !failed;
}

void MultistatusReader::Fail() noexcept {
  failed = true;
  xmlStopParser(parser.get());
}

void MultistatusReader::StartElement(Tag tag) {
  const bool is_root = open.empty();
  if (failed || open.size() >= kMaxDepth || (is_root && tag != Tag::kMultistatus)) {
    Fail();
    return;
  }
  if (tag == Tag::kResponse) {
    resource = {};
  } else if (tag == Tag::kPropstat) {
    properties = {};
    propstat_status = 0;
  } else if (tag == Tag::kCollection && open.back() == Tag::kResourceType) {
    properties.is_folder = true;
  }
  open.push_back(tag);
  text.clear();
}

void MultistatusReader::Text(std::string_view part) {
  if (open.empty() || open.back() == Tag::kOther) {
    return;
  }
  if (text.size() + part.size() > kMaxTextBytes) {
    Fail();
    return;
  }
  text += part;
}

void MultistatusReader::EndElement() {
  if (failed) {
    return;
  }
  const Tag tag = open.back();
  open.pop_back();
  const Tag parent = open.empty() ? Tag::kOther : open.back();
  if (parent == Tag::kProp) {
    EndProperty(tag);
  } else if (parent == Tag::kPropstat && tag == Tag::kStatus) {
    propstat_status = StatusOf(Trim(text));
  } else if (parent == Tag::kResponse && tag == Tag::kStatus) {
    resource.status = StatusOf(Trim(text));
  } else if (parent == Tag::kResponse && tag == Tag::kHref) {
    resource.href = Trim(text);
  } else if (parent == Tag::kResponse && tag == Tag::kPropstat) {
    EndPropstat();
  } else if (parent == Tag::kMultistatus && tag == Tag::kResponse) {
    EndResponse();
  }
  text.clear();
}

void MultistatusReader::EndResponse() {
  if (resource.href.empty()) {  // nothing that could be found again
    return;
  }
  if (++resources > kMaxResources) {
    Fail();
    return;
  }
  sink(std::move(resource));
  resource = {};
}

void MultistatusReader::EndProperty(Tag tag) {
  const std::string_view value = Trim(text);
  if (tag == Tag::kSize) {
    properties.size = NumberOf<unsigned long long>(value);
  } else if (tag == Tag::kModified) {
    const time_t time = curl_getdate(std::string(value).c_str(), nullptr);
    if (time != -1) {
      properties.modified = time;
    }
  } else if (tag == Tag::kEtag) {
    properties.etag = value;
  } else if (tag == Tag::kQuotaAvailable) {
    properties.quota_available = NumberOf<long long>(value);
  } else if (tag == Tag::kQuotaUsed) {
    properties.quota_used = NumberOf<long long>(value);
  }
}

// A server that lacks a property says so in a propstat of its own, with an empty property in it.
void MultistatusReader::EndPropstat() {
  if (!IsGood(propstat_status)) {
    return;
  }
  resource.is_folder |= properties.is_folder;
  resource.size = properties.size ? properties.size : resource.size;
  resource.modified = properties.modified ? properties.modified : resource.modified;
  resource.etag = properties.etag.empty() ? resource.etag : properties.etag;
  resource.quota_available =
      properties.quota_available ? properties.quota_available : resource.quota_available;
  resource.quota_used = properties.quota_used ? properties.quota_used : resource.quota_used;
}

}  // namespace tarn::webdav

#include "agent/http_poster.h"

#include <curl/curl.h>

#include <algorithm>
#include <atomic>
#include <cstdlib>
#include <new>
#include <string_view>

namespace tidegate::agent {
namespace {

// More of a reply is not worth a log line. It is read even so, as a connection can be used again
// only after a whole reply.
constexpr size_t kMaxText = 300;

// Servers name a week, or a date long gone, by mistake.
constexpr curl_off_t kMaxWait = 300;

struct CloseEasy {
  void operator()(CURL* easy) const { curl_easy_cleanup(easy); }
};
struct CloseMulti {
  void operator()(CURLM* multi) const { curl_multi_cleanup(multi); }
};
struct FreeList {
  void operator()(curl_slist* list) const { curl_slist_free_all(list); }
};

std::string Words(CURLcode code, bool connected) {
  switch (code) {
    case CURLE_COULDNT_RESOLVE_HOST:
      return "the host's name cannot be found";
    case CURLE_COULDNT_CONNECT:
      return "cannot connect";
    case CURLE_OPERATION_TIMEDOUT:
      return connected ? "no reply in time" : "no connection in time";
    case CURLE_ABORTED_BY_CALLBACK:
      return "the agent ended before the reply";
    case CURLE_WRITE_ERROR:
      return "the head of the reply does not end";
    case CURLE_OUT_OF_MEMORY:
      return "a line of the reply is too long, or out of memory";
    case CURLE_UNSUPPORTED_PROTOCOL:
    case CURLE_WEIRD_SERVER_REPLY:
      return "the reply is not HTTP/1.1";
    case CURLE_GOT_NOTHING:
    case CURLE_PARTIAL_FILE:
    case CURLE_RECV_ERROR:
    case CURLE_SEND_ERROR:
      return "the connection broke before the end of the reply";
    case CURLE_PEER_FAILED_VERIFICATION:
      return "the server's certificate is not trusted, or is for another name";
    case CURLE_SSL_CACERT_BADFILE:
      return "the file of trusted certificates (ca-file) cannot be used";
    case CURLE_SSL_CERTPROBLEM:
      return "the agent's certificate or key (client-cert, client-key) cannot be used";
    default:
      return std::string("no reply: ") + curl_easy_strerror(code);
  }
}

// The phrase after the number of a line such as "HTTP/1.1 503 Service Unavailable".
std::string_view Reason(std::string_view status_line) {
  for (int words = 0; words < 2; ++words) {
    status_line.remove_prefix(std::min(status_line.find(' '), status_line.size() - 1) + 1);
  }
  return status_line;
}

}  // namespace

std::string PrintableLine(std::string_view text) {
  std::string line(text.substr(0, kMaxText));
  std::replace_if(
      line.begin(), line.end(),
      [](char c) { return static_cast<unsigned char>(c) < ' ' || c == '\x7f'; }, ' ');
  line.erase(line.find_last_not_of(' ') + 1);
  return line;
}

class HttpPoster::Client {
 public:
  Client(const ForwardUrl& url, const Credentials& credentials,
         const std::vector<std::string>& headers);

  // The result of the request; CURLE_ABORTED_BY_CALLBACK after Cancel.
  CURLcode Perform(const std::string& body, std::chrono::milliseconds timeout);
  void Cancel();
  HttpReply TakeReply(CURLcode code);

 private:
  template <typename Value>
  void Set(CURLoption option, Value value) {
    if (curl_easy_setopt(easy_.get(), option, value) != CURLE_OK) throw std::bad_alloc();
  }
  void AddHeader(const char* header);
  void SetUrl(const ForwardUrl& url);
  void SetCredentials(const ForwardUrl& url, const Credentials& credentials);
  CURLcode Await();
  bool Count(size_t size);

  static size_t TakeHeader(char* data, size_t one, size_t size, void* client) noexcept;
  static size_t TakeBody(char* data, size_t one, size_t size, void* client) noexcept;

  std::unique_ptr<CURLM, CloseMulti> multi_;
  std::unique_ptr<curl_slist, FreeList> headers_;
  std::unique_ptr<CURL, CloseEasy> easy_;
  std::atomic<bool> cancelled_{false};

  // Of the request, with all memory that they can need, as nothing may throw through the library.
  std::string status_line_;
  std::string body_;
  size_t received_ = 0;
  bool head_ended_ = false;  // that of the last status line; the library takes half of one, too
  bool cut_ = false;         // in the body
};

HttpPoster::Client::Client(const ForwardUrl& url, const Credentials& credentials,
                           const std::vector<std::string>& headers) {
  static const CURLcode once = curl_global_init(CURL_GLOBAL_DEFAULT);
  multi_.reset(once == CURLE_OK ? curl_multi_init() : nullptr);
  easy_.reset(multi_ ? curl_easy_init() : nullptr);
  if (!easy_) throw std::bad_alloc();
  AddHeader("Expect:");
  for (const std::string& header : headers) AddHeader(header.c_str());
  for (const std::string& header : credentials.headers) AddHeader(header.c_str());
  body_.reserve(kMaxReply);
  status_line_.reserve(kMaxText);

  SetUrl(url);
  SetCredentials(url, credentials);
  Set(CURLOPT_HTTPHEADER, headers_.get());
  Set(CURLOPT_POST, 1L);
  Set(CURLOPT_HEADERFUNCTION, &Client::TakeHeader);
  Set(CURLOPT_HEADERDATA, this);
  Set(CURLOPT_WRITEFUNCTION, &Client::TakeBody);
  Set(CURLOPT_WRITEDATA, this);
  Set(CURLOPT_NOSIGNAL, 1L);
  // The look-up of a name cannot be stopped: its thread is left to end by itself.
  Set(CURLOPT_QUICK_EXIT, 1L);
}

void HttpPoster::Client::AddHeader(const char* header) {
  curl_slist* const longer = curl_slist_append(headers_.get(), header);
  if (longer == nullptr) throw std::bad_alloc();
  static_cast<void>(headers_.release());
  headers_.reset(longer);
}

void HttpPoster::Client::SetUrl(const ForwardUrl& url) {
  Set(CURLOPT_URL, url.Request().c_str());
  Set(CURLOPT_PROTOCOLS_STR, "http,https");
  Set(CURLOPT_PATH_AS_IS, 1L);  // the user has written it as it is to be
  Set(CURLOPT_HTTP_VERSION, static_cast<long>(CURL_HTTP_VERSION_1_1));
  Set(CURLOPT_PROXY, "");
  Set(CURLOPT_USERAGENT, "tidegate-agent/" TIDEGATE_VERSION);
}

void HttpPoster::Client::SetCredentials(const ForwardUrl& url, const Credentials& credentials) {
  const bool in_url = !url.user.empty();
  if (in_url || !credentials.user.empty()) {
    Set(CURLOPT_USERNAME, (in_url ? url.user : credentials.user).c_str());
    Set(CURLOPT_PASSWORD, (in_url ? url.password : credentials.password).c_str());
  }
  if (!credentials.ca_file.empty()) {
    Set(CURLOPT_CAINFO, credentials.ca_file.c_str());
    Set(CURLOPT_CAPATH, static_cast<const char*>(nullptr));
    Set(CURLOPT_CA_CACHE_TIMEOUT, 0L);  // the file may be another one by the next connection
  } else if (const char* const trusted = std::getenv("SSL_CERT_FILE")) {
    Set(CURLOPT_CAINFO, trusted);
  }
  if (!credentials.client_cert.empty()) {
    Set(CURLOPT_SSLCERT, credentials.client_cert.c_str());
    Set(CURLOPT_SSLKEY,
        (credentials.client_key.empty() ? credentials.client_cert : credentials.client_key)
            .c_str());
  }
}

CURLcode HttpPoster::Client::Perform(const std::string& body, std::chrono::milliseconds timeout) {
  status_line_.clear();
  body_.clear();
  received_ = 0;
  head_ended_ = false;
  cut_ = false;
  Set(CURLOPT_POSTFIELDS, body.data());
  Set(CURLOPT_POSTFIELDSIZE_LARGE, static_cast<curl_off_t>(body.size()));
  // That of a connection alone would be 5 minutes if this one is longer.
  Set(CURLOPT_CONNECTTIMEOUT_MS, static_cast<long>(timeout.count()));
  Set(CURLOPT_TIMEOUT_MS, static_cast<long>(timeout.count()));
  if (curl_multi_add_handle(multi_.get(), easy_.get()) != CURLM_OK) return CURLE_OUT_OF_MEMORY;
  const CURLcode code = Await();
  curl_multi_remove_handle(multi_.get(), easy_.get());  // and its connection, if it is not done
  return code == CURLE_OK && !head_ended_ ? CURLE_RECV_ERROR : code;
}

CURLcode HttpPoster::Client::Await() {
  int running = 1;
  while (!cancelled_) {
    if (curl_multi_perform(multi_.get(), &running) != CURLM_OK) return CURLE_OUT_OF_MEMORY;
    if (running == 0) {
      int left = 0;
      const CURLMsg* const message = curl_multi_info_read(multi_.get(), &left);
      return message != nullptr ? message->data.result : CURLE_OUT_OF_MEMORY;
    }
    // Longer than any time-out: the library wakes up for its own.
    constexpr int kWait = 60000;
    if (curl_multi_poll(multi_.get(), nullptr, 0, kWait, nullptr) != CURLM_OK) {
      return CURLE_OUT_OF_MEMORY;
    }
  }
  return CURLE_ABORTED_BY_CALLBACK;
}

void HttpPoster::Client::Cancel() {
  cancelled_ = true;
  curl_multi_wakeup(multi_.get());
}

HttpReply HttpPoster::Client::TakeReply(CURLcode code) {
  HttpReply reply;
  if (code != CURLE_OK && !cut_) {
    curl_off_t connected = 0;
    curl_easy_getinfo(easy_.get(), CURLINFO_PRETRANSFER_TIME_T, &connected);
    reply.text = Words(code, connected > 0);
    return reply;
  }
  long status = 0;
  curl_easy_getinfo(easy_.get(), CURLINFO_RESPONSE_CODE, &status);
  reply.status = static_cast<int>(status);
  reply.body = body_;
  reply.text = PrintableLine(body_.empty() ? Reason(status_line_) : body_);
  curl_header* location = nullptr;
  if (curl_easy_header(easy_.get(), "Location", 0, CURLH_HEADER, -1, &location) == CURLHE_OK) {
    // It often is the URL of the request, with its query.
    reply.location = WithoutSecrets(PrintableLine(location->value));
  }
  curl_off_t wait = 0;
  curl_easy_getinfo(easy_.get(), CURLINFO_RETRY_AFTER, &wait);
  reply.wait = std::chrono::seconds(std::clamp<curl_off_t>(wait, 0, kMaxWait));
  return reply;
}

bool HttpPoster::Client::Count(size_t size) {
  received_ += size;
  return received_ <= kMaxReply;
}

size_t HttpPoster::Client::TakeHeader(char* data, size_t /*one*/, size_t size,
                                      void* client) noexcept {
  auto* const self = static_cast<Client*>(client);
  const std::string_view line(data, size);
  if (line.substr(0, 5) == "HTTP/") {
    self->status_line_.assign(line.substr(0, kMaxText));
    self->head_ended_ = false;
  }
  if (line == "\r\n" || line == "\n") self->head_ended_ = true;
  return self->Count(size) ? size : 0;
}

size_t HttpPoster::Client::TakeBody(char* data, size_t /*one*/, size_t size,
                                    void* client) noexcept {
  auto* const self = static_cast<Client*>(client);
  self->cut_ = !self->Count(size);
  if (self->cut_) return 0;
  self->body_.append(data, size);
  return size;
}

std::string TextOf(const HttpReply& reply) {
  if (reply.status == 0) return reply.text;
  std::string text = "HTTP " + std::to_string(reply.status);
  if (!reply.text.empty()) text += ": " + reply.text;
  if (!reply.location.empty()) {
    text += " (redirects are not followed: give " + reply.location + " as the URL)";
  }
  return text;
}

HttpPoster::HttpPoster(const ForwardUrl& url, const Credentials& credentials,
                       const std::vector<std::string>& headers)
    : client_(std::make_unique<Client>(url, credentials, headers)) {}

HttpPoster::~HttpPoster() = default;

HttpReply HttpPoster::Post(const std::string& body, std::chrono::milliseconds timeout) {
  return client_->TakeReply(client_->Perform(body, timeout));
}

void HttpPoster::Cancel() { client_->Cancel(); }

}  // namespace tidegate::agent

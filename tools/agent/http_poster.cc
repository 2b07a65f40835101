#include "agent/http_poster.h"

#include <httplib.h>

#include <algorithm>
#include <charconv>

namespace tidegate::agent {
namespace {

// More of a reply is not worth a log line. It is read further, up to kMaxReply, as a connection
// can be used again only behind a whole reply.
constexpr size_t kMaxText = 300;
constexpr size_t kMaxReply = size_t{64} << 10;

// Servers name a week, or a date long gone, by mistake.
constexpr std::chrono::seconds kMaxWait{300};

std::string Printable(std::string text) {
  text.resize(std::min(text.size(), kMaxText));
  std::replace_if(
      text.begin(), text.end(),
      [](char c) { return static_cast<unsigned char>(c) < ' ' || c == '\x7f'; }, ' ');
  text.erase(text.find_last_not_of(' ') + 1);
  return text;
}

// The form in seconds; a date counts as none.
std::chrono::seconds ParseWait(const std::string& text) {
  unsigned seconds = 0;
  const char* const end = text.data() + text.size();
  const auto [stop, failure] = std::from_chars(text.data(), end, seconds);
  if (failure != std::errc() || stop != end) return std::chrono::seconds(0);
  return std::min(std::chrono::seconds(seconds), kMaxWait);
}

std::string Words(httplib::Error error) {
  switch (error) {
    case httplib::Error::Connection:
    case httplib::Error::ConnectionTimeout:
      return "cannot connect";
    case httplib::Error::Read:
      return "no reply in time, or the connection broke";
    case httplib::Error::Write:
      return "the server does not read";
    case httplib::Error::SSLServerVerification:
      return "the server's certificate is not trusted, or is for another name";
    default:
      return "no reply: " + httplib::to_string(error);
  }
}

std::unique_ptr<httplib::ClientImpl> MakeClient(const ForwardUrl& url) {
  if (url.tls) return std::make_unique<httplib::SSLClient>(url.host, url.port);
  return std::make_unique<httplib::ClientImpl>(url.host, url.port);
}

}  // namespace

class HttpPoster::Client {
 public:
  explicit Client(const ForwardUrl& url) : http_(MakeClient(url)) {
    http_->set_keep_alive(true);
    http_->set_follow_location(false);
    http_->set_tcp_nodelay(true);
    http_->set_url_encode(false);  // the user has written it as it is to be
    if (!url.user.empty()) http_->set_basic_auth(url.user, url.password);
  }

  const std::unique_ptr<httplib::ClientImpl> http_;
};

HttpPoster::HttpPoster(const ForwardUrl& url)
    : target_(url.target), client_(std::make_unique<Client>(url)) {}

HttpPoster::~HttpPoster() = default;

HttpReply HttpPoster::Post(const std::string& gzip_body, std::chrono::milliseconds timeout) {
  httplib::ClientImpl& http = *client_->http_;
  http.set_connection_timeout(std::min(timeout, kMaxConnectTime));
  http.set_write_timeout(timeout);
  http.set_read_timeout(timeout);

  std::string text;
  size_t received = 0;
  httplib::Request request;
  request.method = "POST";
  request.path = target_;
  request.headers = {{"Content-Type", "text/plain; charset=utf-8"}, {"Content-Encoding", "gzip"}};
  request.body = gzip_body;
  request.content_receiver = [&](const char* data, size_t size, uint64_t, uint64_t) {
    text.append(data, std::min(size, kMaxText - text.size()));
    received += size;
    return received <= kMaxReply;
  };
  httplib::Response response;
  httplib::Error error = httplib::Error::Success;
  const bool answered = http.send(request, response, error) || error == httplib::Error::Canceled;

  HttpReply reply = {};
  if (!answered || response.status <= 0) {
    reply.text = Words(error);
    return reply;
  }
  reply.status = response.status;
  reply.text = Printable(text.empty() ? response.reason : text);
  reply.location = Printable(response.get_header_value("Location"));
  reply.wait = ParseWait(response.get_header_value("Retry-After"));
  return reply;
}

void HttpPoster::Cancel() { client_->http_->stop(); }

}  // namespace tidegate::agent

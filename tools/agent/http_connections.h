#pragma once

#include <microhttpd.h>
#include <sys/socket.h>

#include <array>
#include <chrono>
#include <cstddef>
#include <functional>
#include <memory>
#include <optional>
#include <string>
#include <string_view>
#include <vector>

#include "agent/health.h"
#include "agent/http_answers.h"
#include "agent/http_request.h"
#include "agent/page_files.h"
#include "agent/unique_fd.h"

namespace tidegate::agent {

// The limits of all clients of the HTTP side together. The agent holds at most `pages` + 1 pages,
// as one that grows can be there twice, and likewise `answers` + 1 answers of the API. Each
// connection takes 32 KiB of the agent's memory and 160 KiB of the kernel's.
struct HttpLimits {
  size_t connections = 128;
  // That exist at a time, with the one that is being made; two at least.
  size_t pages = 3;
  size_t answers = 8;
  // From the connect, or the end of the answer before, to the end of a request's head.
  std::chrono::milliseconds head{5000};
  // From there to the moment when the client has taken the whole answer.
  std::chrono::milliseconds answer{60000};
  // How long a page or an answer may be read while others wait for room for a newer one.
  std::chrono::milliseconds page{5000};
};

// The clients of the HTTP side: takes their requests apart, answers them, and cuts off those that
// take longer than they may.
//
// Everything that a client can make it hold is bounded. A head has 32 KiB at most; no body is read.
// A client beyond the limit replaces the oldest one that has no complete request, or the oldest one
// if all have. The page of metrics and the answers of the API are made elsewhere, see HttpAnswers.
// A slow client delays no other: sockets do not block.
//
// Threads: all calls from one. The functions that begin an answer are called by Run and must not
// call back.
class HttpConnections {
 public:
  using Make = std::function<void(HttpAnswers::Request)>;

  // What is made elsewhere: the page of metrics, and the answers of the API. Each has a thread of
  // its own, so that a page of many series does not hold up the API.
  enum Made : size_t { kPages, kApi };
  static constexpr size_t kMade = 2;

  // Each function begins an answer, which SetMade then hands in; not again before that. Clients
  // that are cut off are counted in `health`.
  HttpConnections(const HttpLimits& limits, Make make_page, Make make_answer, Health* health);
  ~HttpConnections();
  HttpConnections(const HttpConnections&) = delete;
  HttpConnections& operator=(const HttpConnections&) = delete;

  // False if it cannot work at all. Once, as the first call.
  bool Open();

  // False while no more clients can be taken; Run makes room.
  bool HasRoom() const;
  // Takes a client over. Its socket must not block. REQUIRES: HasRoom.
  void Add(UniqueFd client, const sockaddr* address, socklen_t size);

  // Does what can be done at once. It is due when `fd` is readable, and after `Timeout`.
  void Run();
  int fd() const;
  int Timeout() const;  // milliseconds, as poll wants them

  // What was asked for; none if it could not be made.
  void SetMade(Made kind, std::optional<HttpAnswer> answer);

  // Ends clients that have no complete request, from now on.
  void Drain() { draining_ = true; }
  bool empty() const { return open_ == 0; }

  // Ends all clients.
  void CutAll();

 private:
  using Clock = std::chrono::steady_clock;
  enum class State { kFree, kHead, kWaiting, kAnswer, kCut };
  struct File {
    const PageFile* file;
    HttpResponse response;
  };
  struct Client {
    State state = State::kFree;
    int fd = -1;  // the library's; open until `state` is kFree
    MHD_Connection* connection = nullptr;
    bool complete = false;    // the head is
    Clock::time_point since;  // of what its time runs for
    Made kind = kPages;
    HttpAnswers::Request request;  // while it waits
    HttpAnswers::Slot* slot = nullptr;
  };

  static MHD_Result HandleRequest(void* self, MHD_Connection* connection, const char* path,
                                  const char* method, const char* version, const char* upload,
                                  size_t* upload_size, void** context);
  static void HandleConnection(void* self, MHD_Connection* connection, void** context,
                               MHD_ConnectionNotificationCode code);
  static void HandleCompleted(void* self, MHD_Connection* connection, void** context,
                              MHD_RequestTerminationCode code);
  static Client* ClientOf(MHD_Connection* connection);

  bool OpenFiles();
  MHD_Result BeginRequest(Client* client, std::string_view method);
  MHD_Result Answer(Client* client, std::string_view path);
  MHD_Result AnswerWithFile(const Client& client, const File& file);
  MHD_Result AskFor(Client* client, Made kind, std::string_view path);
  MHD_Result AnswerWithMade(Client* client);
  Clock::time_point EndOf(const Client& client) const;
  const Client* FirstWaiting(Made kind) const;  // for one that has not been begun
  bool LacksRoom(Made kind) const;
  void Cut(Client* client);
  void CutSlow();
  void CutReadersOfOldest(Made kind, Clock::time_point now);
  void CutForRoom();
  void BeginAnswer(Made kind);
  void Release(Client* client);

  const HttpLimits limits_;
  Health* const health_;
  std::vector<Client>
      clients_;  // never grows: more than the limit, as one that is cut takes a while
  std::array<HttpAnswers, kMade> answers_;  // by Made
  const HttpAnswers::Request metrics_ = std::make_shared<HttpRequest>(HttpRequest{"/metrics", {}});
  std::vector<File> files_;
  size_t open_ = 0;  // clients that are not free
  size_t cut_ = 0;   // of these
  bool draining_ = false;
  HttpResponse healthy_, not_found_, not_allowed_, no_body_, unavailable_;
  MHD_Daemon* daemon_ = nullptr;
};

}  // namespace tidegate::agent

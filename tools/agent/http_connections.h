#pragma once

#include <microhttpd.h>
#include <sys/socket.h>

#include <chrono>
#include <cstddef>
#include <functional>
#include <memory>
#include <optional>
#include <string>
#include <string_view>
#include <vector>

#include "agent/health.h"
#include "agent/unique_fd.h"

namespace tidegate::agent {

// The limits of all clients of the HTTP side together. The agent holds at most `pages` + 1 pages,
// as one that grows can be there twice. Each connection takes 32 KiB of the agent's memory and 160
// KiB of the kernel's.
struct HttpLimits {
  size_t connections = 128;
  size_t pages = 3;  // that exist at a time, with the one that is being written; two at least
  // From the connect, or the end of the answer before, to the end of a request's head.
  std::chrono::milliseconds head{5000};
  // From there to the moment when the client has taken the whole answer.
  std::chrono::milliseconds answer{60000};
  // How long a page may be read while others wait for room for a newer one.
  std::chrono::milliseconds page{5000};
};

// The clients of the HTTP side: takes their requests apart, answers them, and cuts off those that
// take longer than they may.
//
// Everything that a client can make it hold is bounded. A head has 32 KiB at most; no body is read.
// A client beyond the limit replaces the oldest one that has no complete request, or the oldest one
// if all have. A page exists once, and goes to all clients that asked before it was begun; a later
// one waits for the next page. A slow client delays no other: sockets do not block.
//
// Threads: all calls from one. `make_page` is called by Run and must not call back.
class HttpConnections {
 public:
  // `make_page` begins to write a page, which SetPage then hands in; not again before that.
  // Clients that are cut off are counted in `health`.
  HttpConnections(const HttpLimits& limits, std::function<void()> make_page, Health* health);
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

  // The page that was asked for; none if it could not be made.
  void SetPage(std::optional<std::string> page);

  // Ends clients that have no complete request, from now on.
  void Drain() { draining_ = true; }
  bool empty() const { return open_ == 0; }

  // Ends all clients.
  void CutAll();

 private:
  using Clock = std::chrono::steady_clock;
  struct DestroyResponse {
    void operator()(MHD_Response* response) const { MHD_destroy_response(response); }
  };
  using Response = std::unique_ptr<MHD_Response, DestroyResponse>;

  enum class State { kFree, kHead, kWaiting, kAnswer, kCut };
  struct Page {
    enum class State { kFree, kMaking, kReady, kFailed };
    State state = State::kFree;
    std::optional<std::string> text;  // none when free: an empty string may keep its memory
    Response response;
    size_t readers = 0;  // clients that wait for it or read it
    Clock::time_point made;
  };
  struct Client {
    State state = State::kFree;
    int fd = -1;  // the library's; open until `state` is kFree
    MHD_Connection* connection = nullptr;
    bool complete = false;    // the head is
    Clock::time_point since;  // of what its time runs for
    Page* page = nullptr;
  };

  static Response MakeResponse(std::string_view text, const char* type);
  static MHD_Result HandleRequest(void* self, MHD_Connection* connection, const char* path,
                                  const char* method, const char* version, const char* upload,
                                  size_t* upload_size, void** context);
  static void HandleConnection(void* self, MHD_Connection* connection, void** context,
                               MHD_ConnectionNotificationCode code);
  static void HandleCompleted(void* self, MHD_Connection* connection, void** context,
                              MHD_RequestTerminationCode code);
  static Client* ClientOf(MHD_Connection* connection);

  MHD_Result BeginRequest(Client* client, std::string_view method);
  MHD_Result Answer(Client* client, std::string_view path);
  MHD_Result AnswerWithPage(Client* client);
  Clock::time_point EndOf(const Client& client) const;
  bool WantsPage() const;  // a client waits for one that has not been begun
  bool LacksRoomForPage() const;
  const Page* OldestPage() const;  // of those that are read
  void Cut(Client* client);
  void CutSlow();
  void CutForRoom();
  void BeginPage();
  void ReleasePage(Client* client);

  const HttpLimits limits_;
  const std::function<void()> make_page_;
  Health* const health_;
  std::vector<Client>
      clients_;  // never grows: more than the limit, as one that is cut takes a while
  std::vector<Page> pages_;
  size_t open_ = 0;  // clients that are not free
  size_t cut_ = 0;   // of these
  bool draining_ = false;
  Response welcome_, healthy_, not_found_, not_allowed_, no_body_, unavailable_;
  MHD_Daemon* daemon_ = nullptr;
};

}  // namespace tidegate::agent

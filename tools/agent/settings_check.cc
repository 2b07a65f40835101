#include "agent/settings_check.h"

#include <unistd.h>

#include <cerrno>
#include <clocale>
#include <cstdint>
#include <cstdio>
#include <filesystem>
#include <memory>
#include <string>
#include <system_error>

#include "agent/formats.h"
#include "agent/http_poster.h"
#include "agent/http_server.h"
#include "agent/peer.h"
#include "agent/shown_text.h"
#include "agent/socket_file.h"
#include "agent/spool_folder.h"
#include "agent/unique_fd.h"

namespace tidegate::agent {
namespace {

constexpr int kBadRequest = 400;

class Check {
 public:
  explicit Check(const Options& options) : options_(options) {}

  int Run() {
    Say(Finding::kOk, "settings",
        "make sense; files are looked at as user " + std::to_string(geteuid()));
    LookAtSocket();
    if (!options_.http.empty()) LookAtHttp();
    for (const ForwardOptions& destination : options_.destinations) {
      LookAtDestination(destination);
      if (!destination.spool.folder.empty()) LookAtSpool(destination.spool);
    }
    LookAtOutputs();
    return failed_ ? 1 : 0;
  }

 private:
  enum class Finding { kOk, kWarning, kFailed };

  void Say(Finding finding, const std::string& what, const std::string& text) {
    constexpr const char* kWords[] = {"ok", "warning", "failed"};
    failed_ = failed_ || finding == Finding::kFailed;
    std::printf("%-8s %s: %s\n", kWords[static_cast<int>(finding)], Harmless(what).c_str(),
                Harmless(text).c_str());
    std::fflush(stdout);  // what comes next can take its time
  }

  void LookAtSocket() {
    const std::string what = "socket " + options_.socket;
    UniqueFd connection;
    std::string trouble;
    const SocketFileState state = LookAtSocketFile(options_.socket, &connection, &trouble);
    if (state == SocketFileState::kOther) return Say(Finding::kFailed, what, trouble);
    if (state == SocketFileState::kTaken) {
      taken_ = true;
      return LookAtRival(what, connection);
    }
    namespace fs = std::filesystem;
    fs::path folder = fs::absolute(options_.socket).parent_path();
    std::error_code ignored;
    while (folder.has_relative_path() && !fs::exists(folder, ignored)) {
      folder = folder.parent_path();
    }
    if (access(folder.c_str(), W_OK | X_OK) != 0) {
      return Say(Finding::kFailed, what, "cannot be made, " + folder.string() + ": " + ErrnoText());
    }
    Say(Finding::kOk, what,
        state == SocketFileState::kStale ? "the one of an agent that is gone would be replaced"
                                         : "would be made");
  }

  void LookAtRival(const std::string& what, const UniqueFd& connection) {
    const auto peer = PeerOf(connection.get());
    const std::string process = peer ? "process " + std::to_string(peer->pid) : "a process";
    if (!options_.take_over) {
      return Say(Finding::kWarning, what,
                 process + " listens there, and has to end before; or use --take-over");
    }
    const bool same = peer && peer->uid == geteuid();
    Say(same ? Finding::kOk : Finding::kFailed, what,
        same ? "would be taken over from " + process
             : process + " of another user listens there, and hands nothing over");
  }

  void LookAtHttp() {
    const std::string what = "http " + options_.http;
    std::string url;
    std::string error;
    if (HttpServer::ListenAt(options_.http, UniqueFd(), &url, &error).valid()) {
      return Say(Finding::kOk, what, "/metrics would be served there");
    }
    // The agent that runs has to end for its socket, too.
    Say(taken_ ? Finding::kWarning : Finding::kFailed, what, error);
  }

  void LookAtDestination(const ForwardOptions& options) {
    const std::string what = options.name + ' ' + options.target.url.shown;
    SeriesTable::Options table;
    table.process_label = options_.process_label;
    const std::unique_ptr<const PointFormat> format = MakeFormat(options, table);
    HttpPoster poster(options.target.url, options.target.credentials, format->Headers());
    const HttpReply reply = poster.Post(format->Pack(""), options.target.timeout);
    const Verdict verdict = format->Read(reply, 0);
    std::string text = TextOf(reply);
    if (!verdict.words.empty()) text += ": " + verdict.words;
    switch (verdict.kind) {
      case Verdict::Kind::kTaken:
        return Say(Finding::kOk, what, "took an empty request, " + text);
      case Verdict::Kind::kAgain:
        return Say(Finding::kFailed, what, text + "; points would wait, and be sent again");
      case Verdict::Kind::kSetUp:
        return Say(Finding::kFailed, what,
                   text + "; points would be sent again for 10 minutes, and then be dropped");
      case Verdict::Kind::kRefused:
        break;
    }
    if (reply.status == kBadRequest) {
      return Say(Finding::kWarning, what, text + "; maybe only because the request was empty");
    }
    Say(Finding::kFailed, what, text + "; points would be dropped");
  }

  void LookAtSpool(const SpoolOptions& spool) {
    std::string error;
    std::error_code ignored;
    // The folder of several spools is made as well.
    const bool below = spool.parent.empty() || std::filesystem::exists(spool.parent, ignored);
    const SpoolFolder::Use use = SpoolFolder::TryToUse(below ? spool.folder : spool.parent, &error);
    const std::string what = "spool " + spool.folder;
    if (use == SpoolFolder::Use::kPossible) return Say(Finding::kOk, what, "can be used");
    Say(use == SpoolFolder::Use::kInUse ? Finding::kWarning : Finding::kFailed, what,
        error + "; points would wait in memory alone");
  }

  void LookAtOutputs() {
    std::string outputs;
    if (options_.print) outputs += ", printed";
    if (!options_.http.empty()) outputs += ", shown on /metrics";
    if (!options_.destinations.empty()) outputs += ", forwarded";
    Say(outputs.empty() ? Finding::kWarning : Finding::kOk, "points",
        outputs.empty() ? "would go nowhere" : "would be" + outputs.substr(1));
  }

  static std::string ErrnoText() { return std::generic_category().message(errno); }

  const Options& options_;
  bool taken_ = false;  // the socket is
  bool failed_ = false;
};

}  // namespace

int CheckSettings(const Options& options) {
  std::setlocale(LC_CTYPE, "");  // of Harmless
  return Check(options).Run();
}

}  // namespace tidegate::agent

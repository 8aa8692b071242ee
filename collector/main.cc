#include <pthread.h>
#include <signal.h>
#include <sys/stat.h>
#include <unistd.h>

#include <cerrno>
#include <cstdio>
#include <mutex>
#include <thread>

#include "collector_server.h"
#include "command_line.h"
#include "session_store.h"
#include "support/files.h"

using namespace verdalune::sessionreplay;

namespace {

int fail(const std::string& reason, int status = 1) {
  std::fprintf(stderr, "vdl-collector: %s\n", reason.c_str());
  return status;
}

}  // namespace

int main(int argc, char** argv) {
  // An SQLite database holds screens of people's phones: it, and the journal files SQLite makes beside it,
  // are for this user only, whoever else can log in to the host.
  umask(077);
  const auto parsed = collector::parseCommandLine(std::span<const char* const>(argv + 1, argc - 1));
  if (!parsed) return fail(parsed.error() + " (see --help)", 2);
  if (std::holds_alternative<collector::HelpRequested>(*parsed)) {
    std::fputs(collector::usage().c_str(), stdout);
    return 0;
  }
  const auto& options = std::get<collector::CommandLine>(*parsed);

  collector::ServerSettings settings{
      .apiKeys = {options.apiKeys.begin(), options.apiKeys.end()},
      .configs = {},
      .maxBodyBytes = options.maxBodyBytes,
      .inflateLimits = {.maxEventBytes = options.maxEventBytes, .maxBlockBytes = options.maxBlockBytes},
      .assetsDir = options.assetsDir,
      .testControlToken = options.testControlToken,
      .allowedHosts = {options.allowedHosts.begin(), options.allowedHosts.end()},
      .readToken = options.readToken,
      .openReads = options.openReads,
      .connectionLimits = {.headerDeadline = std::chrono::seconds(options.headerDeadlineSeconds),
                           .maxConnectionsPerClient = options.maxConnectionsPerClient,
                           .minBodyBytesPerSecond = options.minBodyBytesPerSecond}};
  for (const auto& [apiKey, file] : options.configFiles) {
    auto contents = readWholeFile(file);
    if (!contents) return fail("cannot read " + file + ": " + contents.error().message());
    settings.configs[apiKey] = std::move(*contents);
  }

  // Every thread started from here on inherits the blocked mask, so only the waiter below takes
  // these signals, outside any handler, where stopping the server is safe.
  sigset_t stopSignals;
  sigemptyset(&stopSignals);
  sigaddset(&stopSignals, SIGINT);
  sigaddset(&stopSignals, SIGTERM);
  pthread_sigmask(SIG_BLOCK, &stopSignals, nullptr);
  signal(SIGPIPE, SIG_IGN);  // a client that hangs up is a failed write, not the end of the server

  auto database = collector::openSessionStore(options.database);
  if (!database) return fail("cannot open the database " + database.error());

  std::mutex logMutex;
  collector::CollectorServer server(std::move(settings), **database, [&](std::string_view line) {
    std::lock_guard lock(logMutex);
    std::fwrite(line.data(), 1, line.size(), stdout);
    std::fputc('\n', stdout);
    std::fflush(stdout);
  });
  const auto port = server.bind(options.host, options.port);
  if (!port) return fail(port.error());

  std::thread signalWaiter([&] {
    int received = 0;
    sigwait(&stopSignals, &received);
    server.stop();
  });
  if (options.watchStdin) {
    // Blocks in read() for the life of the process, so it is left detached; it only raises a signal.
    std::thread([] {
      char buffer[256];
      ssize_t count = 0;
      do {
        count = read(STDIN_FILENO, buffer, sizeof buffer);
      } while (count > 0 || (count < 0 && errno == EINTR));
      kill(getpid(), SIGTERM);
    }).detach();
  }

  {
    std::lock_guard lock(logMutex);
    std::printf("listening on http://%s:%d\n", options.host.c_str(), *port);
    std::fflush(stdout);
  }
  const bool served = server.run();

  // Wakes the waiter when the server ended on its own; a waiter that already took a signal has
  // finished, and a signal aimed at a finished thread is discarded.
  pthread_kill(signalWaiter.native_handle(), SIGTERM);
  signalWaiter.join();
  return served ? 0 : fail("the server stopped unexpectedly");
}

// Writes the script the web view bridge injects into pages to standard output, byte for byte (no newline
// added), for the browser tests to load into a real page.
#include <cstdio>
#include <string>

#include "webview/web_view_handler.h"

int main() {
  const std::string& script = verdalune::sessionreplay::WebViewHandler::injectedScript();
  const bool written = std::fwrite(script.data(), 1, script.size(), stdout) == script.size();
  return written && std::fflush(stdout) == 0 ? 0 : 1;
}

#include "upload/http_error.h"

namespace verdalune::sessionreplay {

HttpResult classify(std::optional<std::string> data, std::optional<HttpResponse> response,
                    std::optional<TransportError> error) {
  if (error) {
    switch (error->code) {
      case -1009:  // not connected to the internet
      case -1005:  // network connection lost
        return std::unexpected(HttpError::offline);
      case -1006:  // DNS lookup failed
      case -1003:  // cannot find host
        return std::unexpected(HttpError::dnsError);
      case -1004:  // cannot connect to host
      case -1001:  // timed out: a transport time-out, unlike an HTTP 408
        return std::unexpected(HttpError::connectionFailed);
      case -999:
        return std::unexpected(HttpError::cancelled);
      case -1202:  // server certificate untrusted
      case -1200:  // secure connection failed
        return std::unexpected(HttpError::sslError);
      default:
        return std::unexpected(*error);
    }
  }
  if (!response || !response->isHttp) return std::unexpected(HttpError::unknown);

  const int status = response->statusCode;
  if (status >= 200 && status <= 299) return data;
  switch (status) {
    case 402:
      return std::unexpected(HttpError::quotaExceeded);
    case 408:
      return std::unexpected(HttpError::timeout);
    case 413:
      return std::unexpected(HttpError::payloadTooLarge);
    case 429:
      return std::unexpected(HttpError::rateLimited);
    default:
      break;
  }
  if (status >= 400 && status <= 499) return std::unexpected(HttpError::invalidRequest);
  if (status >= 500) return std::unexpected(HttpError::requestFailed);
  return std::unexpected(HttpError::unknown);
}

bool isRetryable(const HttpFailure& failure) {
  const auto* error = std::get_if<HttpError>(&failure);
  if (!error) return false;
  switch (*error) {
    case HttpError::sslError:
    case HttpError::dnsError:
    case HttpError::connectionFailed:
    case HttpError::rateLimited:
    case HttpError::timeout:
      return true;
    default:
      return false;
  }
}

std::string_view describe(HttpError error) {
  switch (error) {
    case HttpError::invalidURL:
      return "invalidURL";
    case HttpError::couldNotEncodeData:
      return "couldNotEncodeData";
    case HttpError::noMoreRetries:
      return "noMoreRetries";
    case HttpError::offline:
      return "offline";
    case HttpError::unknown:
      return "unknown";
    case HttpError::sslError:
      return "sslError";
    case HttpError::dnsError:
      return "dnsError";
    case HttpError::connectionFailed:
      return "connectionFailed";
    case HttpError::cancelled:
      return "cancelled";
    case HttpError::rateLimited:
      return "rateLimited";
    case HttpError::payloadTooLarge:
      return "payloadTooLarge";
    case HttpError::timeout:
      return "timeout";
    case HttpError::invalidRequest:
      return "invalidRequest";
    case HttpError::requestFailed:
      return "requestFailed";
    case HttpError::quotaExceeded:
      return "quotaExceeded";
    case HttpError::invalidResponse:
      return "invalidResponse";
  }
  return "unknown";
}

std::string describe(const HttpFailure& failure) {
  if (const auto* error = std::get_if<HttpError>(&failure)) return std::string(describe(*error));
  const auto& transport = std::get<TransportError>(failure);
  if (!transport.description.empty()) return transport.description;
  return "URL error " + std::to_string(transport.code);
}

}  // namespace verdalune::sessionreplay

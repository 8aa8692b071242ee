#include "upload/http_error.h"

#include <gtest/gtest.h>

namespace verdalune::sessionreplay {
namespace {

HttpFailure failureFor(std::optional<HttpResponse> response, std::optional<TransportError> error = {}) {
  const auto result = classify(std::nullopt, response, std::move(error));
  EXPECT_FALSE(result.has_value());
  return result ? HttpFailure(HttpError::invalidResponse) : result.error();
}

HttpFailure failureForStatus(int status) {
  return failureFor(HttpResponse{status});
}

TEST(HttpClassification, SuccessIsAny2xxWithItsBodyIfAny) {
  for (int status : {200, 201, 204, 299}) {
    const auto result = classify(std::string("{}"), HttpResponse{status}, std::nullopt);
    ASSERT_TRUE(result.has_value()) << status;
    EXPECT_EQ(*result, "{}");
  }
  const auto empty = classify(std::nullopt, HttpResponse{204}, std::nullopt);
  ASSERT_TRUE(empty.has_value());
  EXPECT_EQ(*empty, std::nullopt);
}

TEST(HttpClassification, StatusCodesMapToTheirCases) {
  EXPECT_EQ(failureForStatus(402), HttpFailure(HttpError::quotaExceeded));
  EXPECT_EQ(failureForStatus(408), HttpFailure(HttpError::timeout));
  EXPECT_EQ(failureForStatus(413), HttpFailure(HttpError::payloadTooLarge));
  EXPECT_EQ(failureForStatus(429), HttpFailure(HttpError::rateLimited));
  for (int status : {400, 401, 403, 404, 499}) {
    EXPECT_EQ(failureForStatus(status), HttpFailure(HttpError::invalidRequest)) << status;
  }
  for (int status : {500, 503, 599, 600}) {
    EXPECT_EQ(failureForStatus(status), HttpFailure(HttpError::requestFailed)) << status;
  }
  for (int status : {100, 199, 300, 302, 304, 399}) {
    EXPECT_EQ(failureForStatus(status), HttpFailure(HttpError::unknown)) << status;
  }
  EXPECT_EQ(failureFor(std::nullopt), HttpFailure(HttpError::unknown));
  EXPECT_EQ(failureFor(HttpResponse{200, false}), HttpFailure(HttpError::unknown));
}

TEST(HttpClassification, TransportErrorsWinOverAnyResponse) {
  const std::pair<int, HttpError> known[] = {
      {-1009, HttpError::offline},          {-1005, HttpError::offline},
      {-1006, HttpError::dnsError},         {-1003, HttpError::dnsError},
      {-1004, HttpError::connectionFailed}, {-1001, HttpError::connectionFailed},
      {-999, HttpError::cancelled},         {-1202, HttpError::sslError},
      {-1200, HttpError::sslError},
  };
  for (const auto& [code, expected] : known) {
    EXPECT_EQ(failureFor(HttpResponse{200}, TransportError{code, "x"}), HttpFailure(expected)) << code;
  }
  for (int code : {-1011, -1008, -1007, -1002, -1000}) {
    const TransportError error{code, "bad server response"};
    EXPECT_EQ(failureFor(HttpResponse{200}, error), HttpFailure(error)) << code;
  }
}

TEST(HttpClassification, OnlyTransientCasesAreRetried) {
  for (auto error : {HttpError::sslError, HttpError::dnsError, HttpError::connectionFailed,
                     HttpError::rateLimited, HttpError::timeout}) {
    EXPECT_TRUE(isRetryable(error)) << describe(error);
  }
  for (auto error :
       {HttpError::offline, HttpError::invalidRequest, HttpError::requestFailed, HttpError::payloadTooLarge,
        HttpError::quotaExceeded, HttpError::cancelled, HttpError::unknown, HttpError::invalidURL}) {
    EXPECT_FALSE(isRetryable(error)) << describe(error);
  }
  EXPECT_FALSE(isRetryable(TransportError{-1011, "bad server response"}));
}

}  // namespace
}  // namespace verdalune::sessionreplay

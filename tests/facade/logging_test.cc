#include <gtest/gtest.h>

#include "facade/console_logger.h"

namespace verdalune::sessionreplay {
namespace {

using Level = ConsoleLogger::LogLevel;

std::string printedBy(Level level) {
  ConsoleLogger logger(level);
  testing::internal::CaptureStdout();
  logger.error("[Test] error");
  logger.warn("[Test] warn");
  logger.log("[Test] log");
  logger.debug("[Test] debug");
  return testing::internal::GetCapturedStdout();
}

TEST(ConsoleLogger, PrintsMessagesAtOrAboveItsLevelAloneOnALine) {
  EXPECT_EQ(printedBy(Level::fatal), "");
  EXPECT_EQ(printedBy(Level::error), "[Test] error\n");
  EXPECT_EQ(printedBy(Level::warn), "[Test] error\n[Test] warn\n");
  EXPECT_EQ(printedBy(Level::log), "[Test] error\n[Test] warn\n[Test] log\n");
  EXPECT_EQ(printedBy(Level::debug), "[Test] error\n[Test] warn\n[Test] log\n[Test] debug\n");
}

TEST(ConsoleLogger, LevelsComeFromRawValuesOneToFiveOnly) {
  EXPECT_EQ(ConsoleLogger::levelFromRawValue(1), Level::debug);
  EXPECT_EQ(ConsoleLogger::levelFromRawValue(3), Level::warn);
  EXPECT_EQ(ConsoleLogger::levelFromRawValue(5), Level::fatal);
  for (int raw : {0, -1, 6, 100}) EXPECT_EQ(ConsoleLogger::levelFromRawValue(raw), std::nullopt) << raw;
}

}  // namespace
}  // namespace verdalune::sessionreplay

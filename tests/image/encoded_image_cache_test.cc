#include "image/encoded_image_cache.h"

#include <gtest/gtest.h>

namespace verdalune::sessionreplay {
namespace {

using Key = EncodedImageCache::Key;

std::shared_ptr<const EncodedImageData> imageOf(std::size_t bytes) {
  return std::make_shared<const EncodedImageData>(EncodedImageData{.data = std::vector<std::uint8_t>(bytes)});
}

Key keyOf(std::uint64_t name) {
  return {ImageSource{.kind = ImageSource::Kind::pixels, .first = name, .second = 0}, {}};
}

platform::Bitmap bitmapOf(std::uint32_t width, std::uint32_t height, std::size_t bytesPerRow) {
  platform::Bitmap bitmap{.width = width, .height = height, .bytesPerRow = bytesPerRow, .pixels = {}};
  bitmap.pixels.resize(bytesPerRow * height, 0xEE);  // the padding keeps this
  for (std::uint32_t y = 0; y < height; ++y) {
    for (std::size_t x = 0; x < std::size_t{width} * 4; ++x) {
      bitmap.pixels[y * bytesPerRow + x] = static_cast<std::uint8_t>(x * 7 + y);
    }
  }
  return bitmap;
}

TEST(EncodedImageCacheTest, AnObjectNamesItsEntryOnlyWhileItLives) {
  EncodedImageCache cache;
  auto owner = std::make_shared<const int>(1);
  const Key key{ImageSource::object(owner.get()), {}};
  cache.insert(key, imageOf(10), owner);
  EXPECT_NE(cache.find(key), nullptr);
  // Another object may take the address now: the entry must not answer for it.
  owner.reset();
  EXPECT_EQ(cache.find(key), nullptr);
  EXPECT_EQ(cache.size(), 0u);
  EXPECT_EQ(cache.bytes(), 0u);
}

TEST(EncodedImageCacheTest, TheLeastRecentlyUsedGoFirstWhenEntriesOrBytesRunOut) {
  EncodedImageCache cache(3, 100);
  for (std::uint64_t name : {1, 2, 3}) cache.insert(keyOf(name), imageOf(10));
  EXPECT_NE(cache.find(keyOf(1)), nullptr);
  cache.insert(keyOf(4), imageOf(10));  // out of entries: 2 goes
  EXPECT_EQ(cache.find(keyOf(2)), nullptr);
  cache.insert(keyOf(5), imageOf(80));  // out of bytes and entries: 3 goes, which leaves room for both
  EXPECT_EQ(cache.find(keyOf(3)), nullptr);
  cache.insert(keyOf(6), imageOf(101));  // larger than the whole budget: not kept, nothing lost
  EXPECT_EQ(cache.find(keyOf(6)), nullptr);
  for (std::uint64_t name : {1, 4, 5}) EXPECT_NE(cache.find(keyOf(name)), nullptr) << name;
  EXPECT_EQ(cache.size(), 3u);
  EXPECT_EQ(cache.bytes(), 100u);

  // A recipe is part of the key.
  Key otherSize = keyOf(1);
  otherSize.recipe.boundsSize = {10, 10};
  EXPECT_EQ(cache.find(otherSize), nullptr);
}

TEST(ImageSourceTest, PixelsAreNamedByEveryPixelAndTheSizeButNotTheRowPadding) {
  const platform::Bitmap tight = bitmapOf(5, 3, 20);
  EXPECT_EQ(ImageSource::pixels(tight), ImageSource::pixels(bitmapOf(5, 3, 20)));
  EXPECT_EQ(ImageSource::pixels(tight), ImageSource::pixels(bitmapOf(5, 3, 32)));
  for (std::size_t at : {std::size_t{0}, std::size_t{33}, tight.pixels.size() - 1}) {
    platform::Bitmap changed = tight;
    changed.pixels[at] ^= 1;
    EXPECT_NE(ImageSource::pixels(tight), ImageSource::pixels(changed)) << at;
  }
  platform::Bitmap reshaped = tight;
  reshaped.width = 3;
  reshaped.height = 5;
  reshaped.bytesPerRow = 12;
  EXPECT_NE(ImageSource::pixels(tight), ImageSource::pixels(reshaped));
}

}  // namespace
}  // namespace verdalune::sessionreplay

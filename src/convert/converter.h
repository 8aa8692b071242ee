#pragma once

#include <map>
#include <memory>
#include <optional>
#include <string>
#include <utility>
#include <vector>

#include "capture/layer_snapshot.h"
#include "image/encoded_image_cache.h"
#include "image/encoded_image_data.h"
#include "image/image_encoder.h"
#include "verdalune/logger.h"
#include "verdalune/platform/platform.h"

namespace verdalune::sessionreplay {

// Turns one captured layer into the attributes of one HTML element: its geometry and look as inline CSS,
// the class naming its image, and the attributes of a web view's iframe. Runs on the serializer's queue.
class Converter {
 public:
  // What every conversion of one serializer shares: the platform that renders contents the library cannot
  // read itself, and the images encoded so far, so a picture shown by many layers is encoded once.
  // Used on the serializer's queue only.
  class Context {
   public:
    explicit Context(std::shared_ptr<platform::Platform> platform,
                     EncodedImageCache encodedImages = EncodedImageCache())
        : platform_(std::move(platform)), encodedImages_(std::move(encodedImages)) {}
    platform::Platform* platform() const { return platform_.get(); }
    EncodedImageCache& encodedImages() { return encodedImages_; }
    // The same for every image of the context, so the cache need not tell efforts apart.
    const ImageEffort& imageEffort() const { return imageEffort_; }
    void setImageEffort(ImageEffort effort) { imageEffort_ = effort; }

    // How many images the conversions had to encode, the cache not having them: a diagnostic.
    std::size_t encodeCount() const { return encodeCount_; }
    void countEncode() { ++encodeCount_; }

   private:
    std::shared_ptr<platform::Platform> platform_;
    EncodedImageCache encodedImages_;
    ImageEffort imageEffort_;
    std::size_t encodeCount_ = 0;
  };

  // Images met during conversions, by class name ("bg-" + hash), in the order they were met; the
  // serializer turns them into style rules.
  class AdditionalContent {
   public:
    void addImage(const std::string& className, std::shared_ptr<const EncodedImageData> image);
    const std::vector<std::pair<std::string, std::shared_ptr<const EncodedImageData>>>& images() const {
      return images_;
    }
    bool empty() const { return images_.empty(); }

   private:
    std::vector<std::pair<std::string, std::shared_ptr<const EncodedImageData>>> images_;
  };

  // Attribute name → value: "style" always, "class" with an image, "scrolling" and "sandbox" for web views.
  using Attributes = std::map<std::string, std::string>;

  // An image it encodes is stored back into the node's contents in encoded form, so those contents are
  // encoded once; the context's cache makes it once for all contents that show the same picture.
  static Attributes convert(const LayerTreeNode& node, AdditionalContent& additionalContent, Logger* logger,
                            Context& context);
};

}  // namespace verdalune::sessionreplay

#pragma once

#include <cstdint>
#include <optional>
#include <string>
#include <string_view>

#include "lumo/image.h"
#include "platform/png.h"

// The server's use of the project's PNG and base64 codecs, with the checks the server adds:
// line breaks inside base64 and a pixel limit read from the PNG header before decoding.
namespace lumo::server::detail {

// Standard base64 with CR and LF ignored; nullopt when the text is not base64.
std::optional<std::string> decodeBase64(std::string_view text);
// As decodeBase64, into `text` itself (a 3 MB screenshot is not copied); false, with `text`
// left undefined, when it is not base64.
bool decodeBase64InPlace(std::string& text);

// Width and height from a PNG's header; nullopt when the bytes do not start like a PNG.
std::optional<std::pair<std::uint32_t, std::uint32_t>> pngSize(std::string_view png);

// False when the PNG's image data is too short to hold the image its header declares, even
// at deflate's best ratio: a truncated or forged file. Cheap: reads chunk headers only.
bool pngDataCanFill(std::string_view png);

// The decoded image; nullopt when the PNG's data cannot fill its declared size, when
// the bytes are not a valid PNG or when they hold more than `maxPixels` pixels.
std::optional<Image> decodePngImage(std::string_view png,
                                    std::uint64_t maxPixels = kDefaultMaxPngPixels);

// A PNG of `image`; `compression` Fast for images made for review pages.
std::string encodePngImage(const Image& image,
                           PngCompression compression = PngCompression::Balanced);

}  // namespace lumo::server::detail

// libFuzzer target for the check of an X server's setup reply: each input is
// a reply as a server could send it. The check must never read outside it,
// and what it accepts must hold up: the screen's record lies within the
// reply, its size within the bound, and the chosen format gives row and
// image sizes that the upload can use.

#include "overlay/ServerSetupCheck.h"

#include <cstddef>
#include <cstdint>
#include <cstdlib>
#include <cstring>
#include <memory>

namespace {

// Sanity rules every check must keep; a violation aborts so the fuzzer
// records the input.
void check(bool condition)
{
    if (!condition) {
        abort();
    }
}

constexpr size_t screenRecordBytes = 40;

} // namespace

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size)
{
    // A copy of exactly the input's size, so that AddressSanitizer sees any
    // read past it.
    const std::unique_ptr<uint8_t[]> reply(new uint8_t[size == 0 ? 1 : size]);
    if (size > 0) {
        memcpy(reply.get(), data, size);
    }
    const ServerSetupCheck result(reply.get(), size);
    using Verdict = ServerSetupCheck::Verdict;
    const Verdict verdict = result.getVerdict();
    const bool wellFormed = verdict != Verdict::MALFORMED && verdict != Verdict::NO_SCREEN;
    check(wellFormed || !result.getFormat());
    if (!wellFormed) {
        // Whatever size a RandR change would give it.
        check(result.verdictAt(1, 1) == verdict);
        return 0;
    }
    check(result.getScreenOffset() + screenRecordBytes <= size);
    check(result.getWidth() > 0 && result.getHeight() > 0);
    check((verdict == Verdict::SCREEN_TOO_LARGE) !=
          ServerSetupCheck::fitsMaximumSize(result.getWidth(), result.getHeight()));
    check(!result.getFormat() || result.hasRootVisual());
    if (const auto& format = result.getFormat()) {
        // At the largest size the check lets through, the upload's sizes hold.
        const uint32_t side = ServerSetupCheck::maximumScreenSide;
        const auto row = format->rowBytes(side);
        const auto bytes = format->imageBytes(side, side);
        check(row && *row > 0 && bytes);
        check(*bytes == *row * side);
        check(*bytes <= size_t{side} * side * 4);
    }
    return 0;
}

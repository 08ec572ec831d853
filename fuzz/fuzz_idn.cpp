/* fuzz_idn - domain name and address conversions.
 *
 * The input, up to its first zero byte, goes through every conversion.
 * Besides running clean under the sanitizers, the results must keep these
 * properties:
 *   - idn_toascii gives ASCII text or null; null records a known error
 *     code, success leaves the recorded code alone; converting its result
 *     again changes nothing; when the result converts back to UTF-8
 *     without error, that converts to the same ASCII text (letter case
 *     aside);
 *   - idn_email_toascii is null without '@' (code untouched), else the
 *     local part byte for byte, '@' and idn_toascii of the rest, or null
 *     exactly when that conversion fails.
 */
#include "mailconf/idn.h"

#include "fuzz_check.h"

#include <stdint.h>
#include <string.h>
#include <strings.h>

#include <string>

/* A code no conversion records: shows whether one was recorded. */
static const int UNTOUCHED = 4242;

static bool all_ascii(const char *s)
{
    for (; *s; s++)
        if (static_cast<unsigned char>(*s) >= 128)
            return false;
    return true;
}

static void check_toascii(const char *name)
{
    idn_last_error = UNTOUCHED;
    char *ascii = idn_toascii(name);
    if (ascii == nullptr) {
        FUZZ_CHECK(idn_last_error != UNTOUCHED && idn_last_error != 0, "no code recorded for [%s]", name);
        FUZZ_CHECK(strcmp(idn_error_text(idn_last_error), "Unknown error") != 0,
                   "code %d of [%s] has no text", idn_last_error, name);
        return;
    }
    FUZZ_CHECK(idn_last_error == UNTOUCHED, "success recorded code %d", idn_last_error);
    FUZZ_CHECK(all_ascii(ascii), "[%s] gave non-ASCII [%s]", name, ascii);

    char *again = idn_toascii(ascii);
    FUZZ_CHECK(again != nullptr && strcmp(again, ascii) == 0, "[%s] converts again to [%s]", ascii,
               again ? again : "(null)");
    free(again);

    idn_last_error = 0;
    char *utf8 = idn_toutf8(ascii);
    if (utf8 != nullptr && idn_last_error == 0) {
        char *back = idn_toascii(utf8);
        FUZZ_CHECK(back != nullptr && strcasecmp(back, ascii) == 0, "[%s] -> [%s] -> [%s]", ascii, utf8,
                   back ? back : "(null)");
        free(back);
    }
    free(utf8);
    free(ascii);
}

static void check_email(const char *address)
{
    const char *at = strchr(address, '@');

    idn_last_error = UNTOUCHED;
    char *converted = idn_email_toascii(address);
    if (at == nullptr) {
        FUZZ_CHECK(converted == nullptr && idn_last_error == UNTOUCHED, "[%s] without '@' converted",
                   address);
        return;
    }
    char *domain = idn_toascii(at + 1);
    if (domain == nullptr) {
        FUZZ_CHECK(converted == nullptr, "[%s] gave [%s] although its domain does not convert", address,
                   converted);
        return;
    }
    std::string want = std::string(address, static_cast<size_t>(at - address)) + "@" + domain;
    FUZZ_CHECK(converted != nullptr && want == converted, "[%s] gave [%s], want [%s]", address,
               converted ? converted : "(null)", want.c_str());
    free(domain);
    free(converted);
}

extern "C" int LLVMFuzzerInitialize(int *, char ***)
{
    fuzz_diag_init();
    return 0;
}

extern "C" int LLVMFuzzerTestOneInput(const uint8_t *data, size_t size)
{
    const void *nul = memchr(data, 0, size);
    std::string text(reinterpret_cast<const char *>(data),
                     nul ? static_cast<size_t>(static_cast<const uint8_t *>(nul) - data) : size);

    check_toascii(text.c_str());
    check_email(text.c_str());
    return 0;
}

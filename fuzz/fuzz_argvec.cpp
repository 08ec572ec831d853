/* fuzz_argvec - the bounded argument vector under any sequence of use.
 *
 * The input is a program of records run against one ArgVec and a model (a
 * list of texts).  After every step the vector must hold exactly the
 * model's entries: at most 99, never an empty one, each a NUL-terminated
 * copy stored one after the other from the start of the area, `used`
 * counting their bytes, the slot after the last entry and all later slots
 * null.  The vector lives in a heap block of its own size, so a write past
 * it is caught by AddressSanitizer; every input starts with argv_init.
 *
 * Records (first byte, low two bits):
 *   0  add a text: a length byte, then that many bytes (cut at a zero byte)
 *   1  add a long text: two length bytes (0 to 65535, taken modulo 20000)
 *      and a fill byte
 *   2  remember the current count and fill
 *   3  with bit 2 set, argv_init; else cut back to the remembered state
 */
#include "filters/argvec.h"

#include "fuzz_check.h"

#include <stdint.h>
#include <string.h>

#include <string>
#include <vector>

/* model_add - what argv_add must do with a text: 1 added, 0 refused */
static int model_add(std::vector<std::string> &model, size_t &used, const std::string &text)
{
    if (text.empty() || model.size() >= ARGVEC_MAX_ENTRIES || text.size() + 1 > ARGVEC_AREA - used)
        return 0;
    model.push_back(text);
    used += text.size() + 1;
    return 1;
}

/* check_same - the vector's shape against the model after every step; the
 * texts themselves (all of them, or only the newest) when asked */
static void check_same(const ArgVec *vec, const std::vector<std::string> &model, size_t used, bool all_texts)
{
    FUZZ_CHECK(vec->count == static_cast<int32_t>(model.size()), "count %d, model %zu", vec->count,
               model.size());
    FUZZ_CHECK(vec->used == used, "used %zu, model %zu", vec->used, used);
    size_t offset = 0;
    for (size_t i = 0; i < model.size(); i++) {
        FUZZ_CHECK(vec->slots[i] == vec->area + offset, "entry %zu at offset %td, want %zu", i,
                   vec->slots[i] - vec->area, offset);
        if (all_texts || i + 1 == model.size())
            FUZZ_CHECK(strcmp(vec->slots[i], model[i].c_str()) == 0, "entry %zu differs", i);
        offset += model[i].size() + 1;
    }
    for (int i = vec->count; i < ARGVEC_SLOTS; i++)
        FUZZ_CHECK(vec->slots[i] == nullptr, "slot %d after %d entries is not null", i, vec->count);
}

static ArgVec *vec;

extern "C" int LLVMFuzzerInitialize(int *, char ***)
{
    fuzz_diag_init();
    vec = static_cast<ArgVec *>(malloc(sizeof(ArgVec)));
    return 0;
}

extern "C" int LLVMFuzzerTestOneInput(const uint8_t *data, size_t size)
{
    std::vector<std::string> model, saved_model;
    size_t used = 0, saved_used = 0;
    int32_t saved_count = 0;

    argv_init(vec);
    check_same(vec, model, used, true);
    for (size_t pos = 0; pos < size;) {
        int op = data[pos] & 3;
        int init = data[pos] & 4;
        pos++;
        if (op == 0 || op == 1) {
            std::string text;
            if (op == 0) {
                size_t len = pos < size ? data[pos++] : 0;
                len = len < size - pos ? len : size - pos;
                text.assign(reinterpret_cast<const char *>(data + pos), len);
                text = text.substr(0, text.find('\0'));
                pos += len;
            } else {
                size_t len = 0;
                char fill = 'x';
                if (pos + 3 <= size) {
                    len = (static_cast<size_t>(data[pos]) << 8 | data[pos + 1]) % 20000;
                    fill = data[pos + 2] ? static_cast<char>(data[pos + 2]) : 'x';
                }
                pos += 3;
                text.assign(len, fill);
            }
            int want = model_add(model, used, text);
            int got = argv_add(vec, text.c_str());
            FUZZ_CHECK(got == want, "argv_add of %zu bytes with %d entries, %zu used: %d, model %d",
                       text.size(), vec->count, vec->used, got, want);
        } else if (op == 2) {
            saved_model = model;
            saved_used = used;
            saved_count = vec->count;
        } else if (init) {
            argv_init(vec);
            model.clear();
            used = 0;
            saved_model.clear();
            saved_used = 0;
            saved_count = 0;
        } else {
            argv_cut(vec, saved_count, saved_used);
            model = saved_model;
            used = saved_used;
        }
        check_same(vec, model, used, op == 3);
    }
    check_same(vec, model, used, true);
    return 0;
}

/* config - reader of the product configuration file /etc/vdo/vdo.conf.
 *
 * The file is read whole once per process.  Each line holds a key, white
 * space and a value; the first line of a key wins, a key followed by nothing
 * is absent, and there is no comment or quoting syntax.  conf_get() returns
 * pointers into the loaded buffer, which lives as long as the process;
 * load_panel_config() fills the process-wide PanelConfig from it.
 */
#include "runtime/config.h"

#include "runtime/report.h"

#include <fcntl.h>
#include <stdlib.h>
#include <string.h>
#include <sys/stat.h>
#include <unistd.h>

PanelConfig panel_config;

static char *conf_buf = nullptr;
static size_t conf_len = 0;

/* conf_space - white space of the POSIX locale; bytes above 127 never are */
static int conf_space(unsigned char c)
{
    return c == ' ' || c == '\t' || c == '\n' || c == '\v' || c == '\f' || c == '\r';
}

/* conf_load - read the file and cut it into zero-terminated lines */
static int conf_load(void)
{
    struct stat st;
    int fd = open(PANEL_CONFIG_FILE, O_RDONLY);

    if (fd < 0)
        return 0;
    size_t size = fstat(fd, &st) == 0 && st.st_size > 0 ? static_cast<size_t>(st.st_size) : 0;
    char *buf = size > 0 ? static_cast<char *>(malloc(size + 2)) : nullptr;
    ssize_t got = buf != nullptr ? read(fd, buf, size) : -1;
    close(fd);
    if (got < 0 || static_cast<size_t>(got) != size) {
        free(buf);
        return 0;
    }
    buf[size] = 0;
    for (size_t i = 0; i < size; i++) {
        if (buf[i] != '\n')
            continue;
        /* The newline and the white space before it become zero bytes. */
        size_t j = i;
        buf[j] = 0;
        while (j > 0 && buf[j - 1] != 0 && conf_space(static_cast<unsigned char>(buf[j - 1])))
            buf[--j] = 0;
    }
    conf_buf = buf;
    conf_len = size;
    return 1;
}

const char *conf_get(const char *key)
{
    size_t klen = strlen(key);
    size_t pos = 0;

    if (conf_buf == nullptr && !conf_load())
        return nullptr;
    while (pos < conf_len) {
        while (pos < conf_len && conf_space(static_cast<unsigned char>(conf_buf[pos])))
            pos++;
        if (pos + klen < conf_len && strncmp(conf_buf + pos, key, klen) == 0
            && conf_space(static_cast<unsigned char>(conf_buf[pos + klen]))) {
            pos += klen;
            while (conf_buf[pos] != 0 && conf_space(static_cast<unsigned char>(conf_buf[pos])))
                pos++;
            return conf_buf + pos;
        }
        while (pos < conf_len && conf_buf[pos] != 0)
            pos++;
        pos++;
    }
    return nullptr;
}

/* conf_require - one key of PanelConfig; a missing or empty one is fatal */
static const char *conf_require(const char *key)
{
    const char *value = conf_get(key);

    if (value == nullptr || *value == 0)
        report_plain(1, "Error: %s not defined\n", key);
    return value;
}

void load_panel_config(void)
{
#define PANEL_CONFIG_REQUIRE(key) panel_config.key = conf_require(#key);
    PANEL_CONFIG_KEYS(PANEL_CONFIG_REQUIRE)
#undef PANEL_CONFIG_REQUIRE
}

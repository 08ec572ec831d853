/* fuzz_config - the configuration file reader against a reference model.
 *
 * Each input is written as /etc/vdo/vdo.conf and read by the real reader;
 * every key of PanelConfig and the first words of the input are looked up
 * with conf_get and compared with the model below.  When the model finds
 * all 34 keys with values, load_panel_config must fill every field with
 * them (if it ended the process instead, libFuzzer reports the exit).
 *
 * The reader loads the file once per process.  Its source is compiled into
 * this target, so that the loaded buffer can be dropped before each input;
 * the reader itself is used as it is.  The target rewrites the fixed path
 * /etc/vdo/vdo.conf and therefore refuses to run outside the test sandbox
 * (tests/support/sandbox), which gives it a private /etc/vdo.
 */
#include "runtime/config.cpp"

#include "fuzz_check.h"

#include <stdint.h>
#include <string.h>

#include <string>
#include <vector>

#define KEY(name) {#name, &PanelConfig::name}
static const struct {
    const char *key;
    const char *PanelConfig::*field;
} KEYS[] = {
    KEY(PRODUCT_ROOT_D), KEY(HTTPD_VHOSTS_D), KEY(HTTPD_CONF_D), KEY(HTTPD_INCLUDE_D),
    KEY(HTTPD_BIN_D), KEY(HTTPD_LOG_D), KEY(HTTPD_SERVICE), KEY(QMAIL_ROOT_D),
    KEY(QMAIL_MAILNAMES_D), KEY(FTPD_CONF), KEY(FTPD_CONF_INC), KEY(FTPD_BIN_D),
    KEY(NAMED_RUN_ROOT_D), KEY(WEB_STAT), KEY(LOGROTATE), KEY(MYSQL_VAR_D),
    KEY(MYSQL_BIN_D), KEY(PGSQL_BIN_D), KEY(PGSQL_DATA_D), KEY(MAILMAN_ROOT_D),
    KEY(MAILMAN_VAR_D), KEY(PRODUCT_RC_D), KEY(DUMP_D), KEY(CATALINA_HOME),
    KEY(DRWEB_ROOT_D), KEY(DRWEB_ETC_D), KEY(CURL_CA_BUNDLE_FILE), KEY(AWSTATS_ETC_D),
    KEY(AWSTATS_BIN_D), KEY(AWSTATS_TOOLS_D), KEY(AWSTATS_DOC_D), KEY(LIB_SSL_PATH),
    KEY(LIB_CRYPTO_PATH), KEY(CLIENT_PHP_BIN),
};
#undef KEY

/* How many words of the input are looked up as keys besides the 34. */
static const size_t INPUT_KEYS = 6;

static bool white(char c)
{
    return c == ' ' || c == '\t' || c == '\n' || c == '\v' || c == '\f' || c == '\r';
}

/* model_lines - the file as the reader's lookups see it: cut at newlines,
 * white space before each newline dropped (not past a zero byte of the
 * file; the last line, without its newline, keeps it), then cut again at
 * zero bytes */
static std::vector<std::string> model_lines(const std::string &file)
{
    std::vector<std::string> lines, out;
    size_t start = 0, nl;
    while ((nl = file.find('\n', start)) != std::string::npos) {
        std::string line = file.substr(start, nl - start);
        while (!line.empty() && white(line.back()))
            line.pop_back();
        lines.push_back(line);
        start = nl + 1;
    }
    lines.push_back(file.substr(start));
    for (const std::string &line : lines) {
        size_t from = 0, zero;
        while ((zero = line.find('\0', from)) != std::string::npos) {
            out.push_back(line.substr(from, zero - from));
            from = zero + 1;
        }
        out.push_back(line.substr(from));
    }
    return out;
}

/* model_get - the value of key, or false when it is not defined */
static bool model_get(const std::vector<std::string> &lines, const std::string &key, std::string &value)
{
    for (const std::string &line : lines) {
        size_t p = 0;
        while (p < line.size() && white(line[p]))
            p++;
        if (line.compare(p, key.size(), key) != 0 || p + key.size() >= line.size()
            || !white(line[p + key.size()]))
            continue;
        p += key.size();
        while (p < line.size() && white(line[p]))
            p++;
        value = line.substr(p);
        return true;
    }
    return false;
}

/* input_words - the first words of the input: runs of bytes that are
 * neither white space nor zero */
static std::vector<std::string> input_words(const std::string &file)
{
    std::vector<std::string> words;
    size_t p = 0;
    while (p < file.size() && words.size() < INPUT_KEYS) {
        while (p < file.size() && (white(file[p]) || file[p] == '\0'))
            p++;
        size_t start = p;
        while (p < file.size() && !white(file[p]) && file[p] != '\0')
            p++;
        if (p > start)
            words.push_back(file.substr(start, p - start));
    }
    return words;
}

/* write_config - the input as the file.  Overwritten and cut to length
 * rather than emptied first: a file system that flushes a file emptied
 * and written again at its close would make every input a disk write. */
static void write_config(const uint8_t *data, size_t size)
{
    int fd = open(PANEL_CONFIG_FILE, O_WRONLY | O_CREAT, 0644);
    FUZZ_CHECK(fd >= 0, "cannot write %s", PANEL_CONFIG_FILE);
    FUZZ_CHECK(size == 0 || pwrite(fd, data, size, 0) == static_cast<ssize_t>(size), "short write");
    FUZZ_CHECK(ftruncate(fd, static_cast<off_t>(size)) == 0, "cannot cut %s", PANEL_CONFIG_FILE);
    close(fd);
}

extern "C" int LLVMFuzzerInitialize(int *, char ***)
{
    fuzz_diag_init();
    if (getenv("REBOX_SANDBOX") == nullptr || getenv("REBOX_SANDBOX_SKIP") != nullptr) {
        fprintf(stderr, "fuzz_config rewrites %s: run it inside tests/support/sandbox\n", PANEL_CONFIG_FILE);
        exit(2);
    }
    return 0;
}

extern "C" int LLVMFuzzerTestOneInput(const uint8_t *data, size_t size)
{
    std::string file(reinterpret_cast<const char *>(data), size);

    write_config(data, size);
    free(conf_buf);
    conf_buf = nullptr;
    conf_len = 0;

    std::vector<std::string> lines = model_lines(file);
    std::vector<std::string> keys = input_words(file);
    for (const auto &k : KEYS)
        keys.push_back(k.key);
    int complete = size > 0;
    for (size_t i = 0; i < keys.size(); i++) {
        std::string want;
        bool defined = size > 0 && model_get(lines, keys[i], want);
        const char *got = conf_get(keys[i].c_str());
        FUZZ_CHECK(defined == (got != nullptr) && (!defined || want == got),
                   "key %s: [%s], model [%s]", keys[i].c_str(), got ? got : "(null)",
                   defined ? want.c_str() : "(null)");
        if (i >= keys.size() - sizeof(KEYS) / sizeof(KEYS[0]) && (!defined || want.empty()))
            complete = 0;
    }
    FUZZ_CHECK((conf_buf != nullptr) == (size > 0), "file of %zu bytes %s", size,
               conf_buf ? "loaded" : "not loaded");
    if (!complete)
        return 0;
    load_panel_config();
    for (const auto &k : KEYS)
        FUZZ_CHECK(panel_config.*k.field == conf_get(k.key), "field %s is not the value of its key", k.key);
    return 0;
}

/* config - the product configuration file /etc/vdo/vdo.conf.
 *
 * conf_get() looks a key up in the file (loaded once per process);
 * load_panel_config() fills the process-wide PanelConfig with the 34
 * installation settings and ends the process at the first one missing.
 */
#pragma once

#define PANEL_CONFIG_FILE "/etc/vdo/vdo.conf"

/* PANEL_CONFIG_KEYS - the installation settings, in the order
 * load_panel_config() requires them */
#define PANEL_CONFIG_KEYS(X) \
    X(PRODUCT_ROOT_D) X(HTTPD_VHOSTS_D) X(HTTPD_CONF_D) X(HTTPD_INCLUDE_D) X(HTTPD_BIN_D) \
    X(HTTPD_LOG_D) X(HTTPD_SERVICE) X(QMAIL_ROOT_D) X(QMAIL_MAILNAMES_D) X(FTPD_CONF) \
    X(FTPD_CONF_INC) X(FTPD_BIN_D) X(NAMED_RUN_ROOT_D) X(WEB_STAT) X(LOGROTATE) X(MYSQL_VAR_D) \
    X(MYSQL_BIN_D) X(PGSQL_BIN_D) X(PGSQL_DATA_D) X(MAILMAN_ROOT_D) X(MAILMAN_VAR_D) \
    X(PRODUCT_RC_D) X(DUMP_D) X(CATALINA_HOME) X(DRWEB_ROOT_D) X(DRWEB_ETC_D) \
    X(CURL_CA_BUNDLE_FILE) X(AWSTATS_ETC_D) X(AWSTATS_BIN_D) X(AWSTATS_TOOLS_D) X(AWSTATS_DOC_D) \
    X(LIB_SSL_PATH) X(LIB_CRYPTO_PATH) X(CLIENT_PHP_BIN)

struct PanelConfig {
#define PANEL_CONFIG_FIELD(key) const char *key;
    PANEL_CONFIG_KEYS(PANEL_CONFIG_FIELD)
#undef PANEL_CONFIG_FIELD
};

/* panel_config - the process-wide record, filled by load_panel_config(). */
extern PanelConfig panel_config;

const char *conf_get(const char *key);
void load_panel_config(void);

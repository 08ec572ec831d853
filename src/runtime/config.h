/* config - the product configuration file /etc/vdo/vdo.conf.
 *
 * conf_get() looks a key up in the file (loaded once per process);
 * load_panel_config() fills the process-wide PanelConfig with the 34
 * installation settings and ends the process at the first one missing.
 */
#pragma once

#define PANEL_CONFIG_FILE "/etc/vdo/vdo.conf"

struct PanelConfig {
    const char *PRODUCT_ROOT_D;
    const char *HTTPD_VHOSTS_D;
    const char *HTTPD_CONF_D;
    const char *HTTPD_INCLUDE_D;
    const char *HTTPD_BIN_D;
    const char *HTTPD_LOG_D;
    const char *HTTPD_SERVICE;
    const char *QMAIL_ROOT_D;
    const char *QMAIL_MAILNAMES_D;
    const char *FTPD_CONF;
    const char *FTPD_CONF_INC;
    const char *FTPD_BIN_D;
    const char *NAMED_RUN_ROOT_D;
    const char *WEB_STAT;
    const char *LOGROTATE;
    const char *MYSQL_VAR_D;
    const char *MYSQL_BIN_D;
    const char *PGSQL_BIN_D;
    const char *PGSQL_DATA_D;
    const char *MAILMAN_ROOT_D;
    const char *MAILMAN_VAR_D;
    const char *PRODUCT_RC_D;
    const char *DUMP_D;
    const char *CATALINA_HOME;
    const char *DRWEB_ROOT_D;
    const char *DRWEB_ETC_D;
    const char *CURL_CA_BUNDLE_FILE;
    const char *AWSTATS_ETC_D;
    const char *AWSTATS_BIN_D;
    const char *AWSTATS_TOOLS_D;
    const char *AWSTATS_DOC_D;
    const char *LIB_SSL_PATH;
    const char *LIB_CRYPTO_PATH;
    const char *CLIENT_PHP_BIN;
};

/* panel_config - the process-wide record, filled by load_panel_config(). */
extern PanelConfig panel_config;

const char *conf_get(const char *key);
void load_panel_config(void);

-- A small sample panel for scripts/demo: load it after tests/fixtures/schema.sql
-- (with the client's character set utf8mb4).  What each row is there to show:
--
-- domains
--   1 example.com       bounce policy with a two-line message, 100 MB domain
--                       quota, alias example.net (mail) and example.org (no mail)
--   2 bücher.example    internationalised: the panel keeps a domain's name in
--                       its ASCII form (xn--bcher-kva.example, the form the
--                       domain is looked up by) and shows displayName;
--                       catch-all to anna@bücher.example; alias
--                       büchershop.example, stored as typed; no quota (-1)
--   3 shop.test         reject policy, active alias shop-alias.test (rejects
--                       too) and a suspended alias (left out)
--   4 old.example       suspended domain: no rcpthosts/virtualdomains line,
--                       POP3 password prefixed with "!"; default bounce text
--   5 quiet.example     active domain whose mail service is off (disabled the
--                       same way); catch-all with no address: the client's
--   6 www-only.example  web only, no mail service: not touched
-- mailboxes: postbox with a plain password (two of them sharing it, so one
-- hash), postbox with a stored crypt hash, redirect (to an IDN address),
-- mail group, autoresponder, mail aliases, quotas (50 MB, 1 MB, 1000 bytes,
-- none), a redirect switched on without an address, a mailbox with nothing.

INSERT INTO clients (id, login, pname, email) VALUES
  (1, 'alice', 'Alice Admin', 'alice@example.com'),
  (2, 'bob', 'Bob Books', 'bob@bücher.example');

INSERT INTO domains (id, name, displayName, status, htype, cl_id, limits_id, params_id) VALUES
  (1, 'example.com', 'example.com', 0, 'vrt_hst', 1, 1, NULL),
  (2, 'xn--bcher-kva.example', 'bücher.example', 0, 'vrt_hst', 2, 2, NULL),
  (3, 'shop.test', 'shop.test', 0, 'vrt_hst', 1, NULL, NULL),
  (4, 'old.example', 'old.example', 16, 'vrt_hst', 1, NULL, NULL),
  (5, 'quiet.example', 'quiet.example', 0, 'vrt_hst', 2, NULL, NULL),
  (6, 'www-only.example', 'www-only.example', 0, 'vrt_hst', 1, NULL, NULL);

INSERT INTO DomainServices (dom_id, type, status, parameters_id) VALUES
  (1, 'mail', 0, 101),
  (2, 'mail', 0, 102),
  (3, 'mail', 0, 103),
  (4, 'mail', 0, NULL),
  (5, 'mail', 16, 105),
  (6, 'web', 0, NULL);

INSERT INTO Parameters (id, parameter, value) VALUES
  (101, 'nonexist_mail', 'bounce'),
  (101, 'bounce_mess', 'Sorry, no mailbox here by that name.\nPlease check the address; it''s case-sensitive.'),
  (102, 'nonexist_mail', 'catch'),
  (102, 'catch_addr', 'anna@bücher.example'),
  (103, 'nonexist_mail', 'reject'),
  (105, 'nonexist_mail', 'catch');

INSERT INTO Limits (id, limit_name, value) VALUES
  (1, 'mbox_quota', '104857600'),
  (2, 'mbox_quota', '-1');

INSERT INTO domainaliases (name, displayName, dom_id, status, dns, mail, web) VALUES
  ('example.net', 'example.net', 1, 0, 'true', 'true', 'true'),
  ('example.org', 'example.org', 1, 0, 'true', 'false', 'true'),
  ('büchershop.example', 'büchershop.example', 2, 0, 'true', 'true', 'true'),
  ('shop-alias.test', 'shop-alias.test', 3, 0, 'true', 'true', 'false'),
  ('old-alias.test', 'old-alias.test', 3, 16, 'true', 'true', 'false');

INSERT INTO accounts (id, type, password) VALUES
  (1, 'plain', 'info-secret'),
  (2, 'crypt', '$1$q7Rz.W2k$fxrGoBRteXoc/1TwQxzWb0'),
  (3, 'plain', 'anna-secret'),
  (4, 'plain', 'orders-secret'),
  (5, 'plain', 'legacy-secret'),
  (6, 'plain', 'info-secret');

INSERT INTO mail (id, mail_name, dom_id, account_id, postbox, redirect, redir_addr,
                  mail_group, autoresponder, spamfilter, virusfilter, mbox_quota) VALUES
  (1, 'info', 1, 1, 'true', 'false', NULL, 'false', 'false', 'true', 'any', 52428800),
  (2, 'john', 1, 2, 'true', 'true', 'john.doe@bücher.example', 'false', 'true', 'false', 'incoming', -1),
  (3, 'sales', 1, NULL, 'false', 'false', NULL, 'true', 'false', 'false', 'outgoing', -1),
  (4, 'webmaster', 1, NULL, 'false', 'true', 'admin@partner.example', 'false', 'false', 'false', 'none', -1),
  (5, 'anna', 2, 3, 'true', 'false', NULL, 'false', 'false', 'true', 'any', 1048576),
  (6, 'orders', 3, 4, 'true', 'true', '', 'false', 'true', 'false', 'none', 1000),
  (7, 'legacy', 4, 5, 'true', 'false', NULL, 'false', 'false', 'false', 'none', -1),
  (8, 'info', 5, 6, 'true', 'false', NULL, 'false', 'false', 'false', 'none', 0),
  (9, 'noreply', 1, NULL, 'false', 'false', NULL, 'false', 'false', 'false', 'none', -1);

INSERT INTO mail_redir (mn_id, address) VALUES
  (3, 'info@example.com'),
  (3, 'anna@bücher.example'),
  (3, 'team@partner.example');

INSERT INTO mail_aliases (mn_id, alias) VALUES
  (1, 'contact'),
  (1, 'office'),
  (5, 'buchhandlung');

INSERT INTO Components (name, version) VALUES
  ('drweb', '4.33.1'),
  ('drweb-qmail', '4.33.1'),
  ('vdo-spamassassin', '3.4.6');

INSERT INTO misc (param, val) VALUES
  ('allow_short_pop3_names', 'disabled'),
  ('mysql41_compatible', 'true'),
  ('admin_email', 'admin@example.com'),
  ('spamfilter_enabled', 'true'),
  ('spamfilter_use_mailuser_prefs', 'true'),
  ('spamfilter_max_children', '8');

INSERT INTO spamfilter (id, username, reject_spam) VALUES
  (1, '*@*', 'false'),
  (2, 'info@example.com', 'true'),
  (3, 'anna@xn--bcher-kva.example', 'false');

INSERT INTO spamfilter_preferences (spamfilter_id, preference, value) VALUES
  (1, 'required_score', '5'),
  (1, 'rewrite_header', 'subject [SPAM]'),
  (2, 'required_score', '4.5'),
  (2, 'whitelist_from', '*@partner.example'),
  (2, 'blacklist_from', 'offers@bad.example'),
  (3, 'rewrite_header', 'subject'),
  (3, 'whitelist_from', '*@verlag.example');

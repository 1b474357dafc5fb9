"""Which directives of nginx go into this host's configuration, by what is checked of them.

What is not named here or in nginx_arguments is left out. docs/restore.md has the list for administrators.
"""
from __future__ import annotations

import dataclasses

from sondrel_restore.web.directives import Directive

# Those without an argument that reaches files, sockets or other hosts.
PLAIN = frozenset("""
    absolute_redirect accept_mutex add_after_body add_before_body add_header addition_types allow ancient_browser
    auth_basic auth_delay autoindex autoindex_exact_size autoindex_format autoindex_localtime break charset
    charset_types chunked_transfer_encoding client_body_buffer_size client_body_timeout client_header_buffer_size
    client_header_timeout client_max_body_size connection_pool_size default_type deny directio disable_symlinks
    early_hints empty_gif etag expires fastcgi_buffer_size fastcgi_buffering fastcgi_buffers
    fastcgi_busy_buffers_size fastcgi_cache_bypass fastcgi_cache_key fastcgi_cache_lock fastcgi_cache_methods
    fastcgi_cache_min_uses fastcgi_cache_use_stale fastcgi_cache_valid fastcgi_connect_timeout fastcgi_hide_header
    fastcgi_ignore_client_abort fastcgi_ignore_headers fastcgi_index fastcgi_intercept_errors fastcgi_keep_conn
    fastcgi_max_temp_file_size fastcgi_next_upstream fastcgi_no_cache fastcgi_pass_header
    fastcgi_pass_request_body fastcgi_pass_request_headers fastcgi_read_timeout fastcgi_request_buffering
    fastcgi_send_timeout fastcgi_split_path_info fastcgi_temp_file_write_size flv gunzip gzip gzip_buffers
    gzip_comp_level gzip_disable gzip_http_version gzip_min_length gzip_proxied gzip_static gzip_types gzip_vary
    hls http2 http2_push_preload if_modified_since ignore_invalid_headers image_filter internal keepalive_disable
    keepalive_requests keepalive_time keepalive_timeout large_client_header_buffers limit_conn_dry_run
    limit_conn_log_level limit_conn_status limit_rate limit_rate_after limit_req_dry_run limit_req_log_level
    limit_req_status lingering_close lingering_time lingering_timeout log_not_found log_subrequest max_ranges
    merge_slashes min_delete_depth modern_browser mp4 msie_padding msie_refresh open_file_cache
    open_file_cache_errors open_file_cache_min_uses open_file_cache_valid output_buffers override_charset
    port_in_redirect postpone_output proxy_buffer_size proxy_buffering proxy_buffers proxy_busy_buffers_size
    proxy_cache_background_update proxy_cache_bypass proxy_cache_convert_head proxy_cache_key proxy_cache_lock
    proxy_cache_lock_age proxy_cache_lock_timeout proxy_cache_methods proxy_cache_min_uses proxy_cache_revalidate
    proxy_cache_use_stale proxy_cache_valid proxy_connect_timeout proxy_cookie_domain proxy_cookie_flags
    proxy_cookie_path proxy_force_ranges proxy_headers_hash_bucket_size proxy_headers_hash_max_size
    proxy_hide_header proxy_http_version proxy_ignore_client_abort proxy_ignore_headers proxy_intercept_errors
    proxy_limit_rate proxy_max_temp_file_size proxy_method proxy_next_upstream proxy_next_upstream_timeout
    proxy_next_upstream_tries proxy_no_cache proxy_pass_header proxy_pass_request_body proxy_pass_request_headers
    proxy_read_timeout proxy_redirect proxy_request_buffering proxy_send_timeout proxy_set_body proxy_set_header
    proxy_ssl_ciphers proxy_ssl_name proxy_ssl_protocols proxy_ssl_server_name proxy_ssl_session_reuse
    proxy_ssl_verify proxy_ssl_verify_depth proxy_temp_file_write_size random_index read_ahead real_ip_header
    real_ip_recursive recursive_error_pages referer_hash_bucket_size request_pool_size reset_timedout_connection
    return rewrite_log satisfy send_lowat send_timeout sendfile sendfile_max_chunk server_name
    server_name_in_redirect server_names_hash_bucket_size server_tokens set set_real_ip_from slice source_charset
    ssi_last_modified ssl_buffer_size ssl_ciphers ssl_early_data ssl_ecdh_curve
    ssl_prefer_server_ciphers ssl_protocols ssl_session_tickets ssl_session_timeout ssl_stapling
    ssl_stapling_verify ssl_verify_client ssl_verify_depth sub_filter sub_filter_last_modified sub_filter_once
    sub_filter_types subrequest_output_buffer_size tcp_nodelay tcp_nopush types_hash_bucket_size
    types_hash_max_size underscores_in_headers uninitialized_variable_warn userid userid_domain userid_expires
    userid_name userid_p3p userid_path userid_service uwsgi_buffer_size uwsgi_buffering uwsgi_buffers
    uwsgi_busy_buffers_size uwsgi_connect_timeout uwsgi_hide_header uwsgi_ignore_client_abort
    uwsgi_intercept_errors uwsgi_max_temp_file_size uwsgi_next_upstream
    uwsgi_pass_header uwsgi_pass_request_body uwsgi_pass_request_headers uwsgi_read_timeout
    uwsgi_request_buffering uwsgi_send_timeout scgi_buffering scgi_connect_timeout scgi_hide_header
    scgi_pass_header scgi_read_timeout scgi_send_timeout uwsgi_param scgi_param grpc_connect_timeout
    grpc_hide_header grpc_pass_header grpc_read_timeout grpc_send_timeout grpc_set_header valid_referers
    variables_hash_bucket_size
    more_set_headers more_clear_headers brotli brotli_types
""".split())

# What "http" says for all sites and each server may say for itself: written into it where it does not.
INHERITED = frozenset("""
    absolute_redirect add_header autoindex charset client_body_timeout client_max_body_size error_page etag
    expires fastcgi_buffer_size fastcgi_buffers fastcgi_connect_timeout fastcgi_read_timeout fastcgi_send_timeout
    gzip gzip_comp_level gzip_disable gzip_http_version gzip_min_length gzip_proxied gzip_types gzip_vary index
    keepalive_timeout limit_rate port_in_redirect proxy_buffer_size proxy_buffering proxy_buffers
    proxy_connect_timeout proxy_http_version proxy_read_timeout proxy_send_timeout proxy_set_header real_ip_header
    send_timeout server_tokens set_real_ip_from ssl_ciphers ssl_prefer_server_ciphers ssl_protocols
    ssl_session_timeout
""".split())

# Those with addresses inside the site, to which the web server goes by itself.
URIS = frozenset(("try_files", "index", "rewrite", "error_page", "auth_request", "auth_request_set", "post_action",
                  "mirror"))
# Those whose first argument is a file that is restored.
FILES = frozenset(("ssl_certificate", "ssl_certificate_key", "ssl_trusted_certificate", "ssl_client_certificate",
                   "ssl_crl", "ssl_dhparam", "auth_basic_user_file", "proxy_ssl_trusted_certificate",
                   "proxy_ssl_certificate", "proxy_ssl_certificate_key", "ssl_stapling_file"))
# Those that hand requests on.
PASSES = frozenset(("proxy_pass", "fastcgi_pass", "uwsgi_pass", "scgi_pass", "grpc_pass"))
# Without these the site would be open to more visitors than it was.
GUARDS = frozenset(("allow", "deny", "auth_basic", "auth_basic_user_file", "auth_request", "internal", "satisfy",
                    "ssl_verify_client", "ssl_client_certificate", "limit_except", "valid_referers"))
BLOCKS = frozenset(("location", "if", "limit_except", "types"))
# What may follow the address of "listen".
LISTEN_OPTIONS = frozenset(("ssl", "http2", "proxy_protocol", "default_server", "default"))


def instead_of(directive: Directive) -> list[Directive]:
    """What keeps a site as closed as it was without a directive that does not go in."""
    if directive.name.endswith("_pass") or directive.name.startswith("content_by"):
        # The files of the program would be sent as they are.
        return [dataclasses.replace(directive, name="return", args=("503",), block=None, text=None)]
    if directive.name in GUARDS or directive.name.startswith("access_by") or directive.name == "auth_pam":
        return [dataclasses.replace(directive, name="deny", args=("all",), block=None, text=None)]
    return []

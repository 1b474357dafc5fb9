"""What the kinds of web servers, pools and certificates have in common: directives, rules for them, asking a site."""

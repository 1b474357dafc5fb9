"""What the kinds of web servers, pools and certificates share: directives, rules for them, and requests to a site."""

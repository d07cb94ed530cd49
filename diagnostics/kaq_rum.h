/* The browser snippet of HTML responses. */
#pragma once

/* Request start, last: starts the output handler for a web request whose settings and agent ask
 * for it. */
void kaq_start_rum_injection(void);

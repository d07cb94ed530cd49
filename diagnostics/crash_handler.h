/* The handler of fatal signals. */
#pragma once

/* Puts the handler in place: at module start, and again at every request start, since another
 * component may have replaced it in between. */
void wrap_sethandler(void);

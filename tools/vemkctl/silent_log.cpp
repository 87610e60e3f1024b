// The daemon's parser logs; a report that quotes the line does not need a second message about it.
#include "zandor_log.h"

void init_zandor_logrotate(const char * /*program*/) {}

void zandor_log_msg_timed(const char * /*format*/, ...) {}

void vzandor_log_msg(const char * /*format*/, va_list /*arguments*/) {}

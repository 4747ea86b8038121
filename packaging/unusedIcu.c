/*
 * unusedIcu.c -- defines two variables of the C library to which code in ICU's archive refers in a
 * way that a shared library cannot link: the seconds from the time zone to UTC, and the zone's
 * names.  Nothing here calls that code.
 */
long __timezone;
char *tzname[2];

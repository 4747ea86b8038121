/*
 * unusedIcu.c -- variables of the C library's that ICU's archive names in code that nothing here
 * calls, in a way that a shared library cannot: seconds from the time zone to UTC, and the zone's
 * names.
 */
long __timezone;
char *tzname[2];

#ifndef INFRA_INFRA3_DETAIL_EXPORT_H
#define INFRA_INFRA3_DETAIL_EXPORT_H

/* Marks what libInfra.so offers. Everything else of the library is hidden. Plain C may include it.
 */
#define INFRA_API __attribute__((visibility("default")))

/* `text` and `first` are the positions of the format text and of its first argument, counted from
   1, the object of a member function included; `first` is 0 for a function that takes a va_list. */
#define INFRA_PRINTF_FORMAT(text, first) __attribute__((format(printf, text, first)))

#endif

// export.h - the one export macro of libqvn_core; everything else is hidden.
#ifndef QUVAS_EXPORT_H
#define QUVAS_EXPORT_H

#if defined(QUVAS_CORE_BUILDING)
#define QUVAS_API __attribute__((visibility("default")))
#else
#define QUVAS_API
#endif

#endif  // QUVAS_EXPORT_H

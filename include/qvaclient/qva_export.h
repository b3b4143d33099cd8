/* Marks the functions and data the shared library exports. */
#ifndef QVACLIENT_QVA_EXPORT_H
#define QVACLIENT_QVA_EXPORT_H

#if defined(__GNUC__)
#define QVA_API __attribute__((visibility("default")))
#else
#define QVA_API
#endif

#endif /* QVACLIENT_QVA_EXPORT_H */

// QV_API marks what the shared library exports; everything else is built hidden.
#ifndef COMMON_QVEXPORT_H_
#define COMMON_QVEXPORT_H_

#define QV_API __attribute__((visibility("default")))

#endif  // COMMON_QVEXPORT_H_

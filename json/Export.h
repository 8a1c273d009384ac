/// \file
/// Which names the two libraries export.
///
/// Both libraries are built with hidden visibility: only what carries one of
/// these marks is reachable from outside (the classes, functions and data that
/// the installed headers declare for their users). QX_SHARED_API marks the
/// names of libQXShared (json/, shared/), QX_LITE_API those of libQXLiteCommon
/// (settings/, ipc/). A class whose objects cross the library boundary as
/// exceptions, or that users derive from or dynamic_cast, is marked whole so
/// that its type information and virtual table are exported too.
///
/// QX_INTERNAL keeps a part of an exported class private to its library: a
/// nested class (which otherwise takes the visibility of the class around it)
/// or a private member function that no inline code of the headers calls.
///
/// This header lies in json/, the lowest folder, so that every folder may
/// include it.
#ifndef QX_JSON_EXPORT_H
#define QX_JSON_EXPORT_H

/// Exported by libQXShared.
#define QX_SHARED_API __attribute__((visibility("default")))
/// Exported by libQXLiteCommon.
#define QX_LITE_API __attribute__((visibility("default")))
/// Kept inside its library, within an exported class.
#define QX_INTERNAL __attribute__((visibility("hidden")))

#endif  // QX_JSON_EXPORT_H

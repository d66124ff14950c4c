#ifndef PZ_FRAMEWORK_WRAPPER_PZ_CP_CONV_H
#define PZ_FRAMEWORK_WRAPPER_PZ_CP_CONV_H

// Written with the converters themselves.

#endif  // PZ_FRAMEWORK_WRAPPER_PZ_CP_CONV_H

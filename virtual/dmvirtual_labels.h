// The coloured labels that the manager's problem reports carry after the function name. All
// its messages are debug-level: they show only at log level debug or trace.
#ifndef ZOVDX_VIRTUAL_DMVIRTUAL_LABELS_H_
#define ZOVDX_VIRTUAL_DMVIRTUAL_LABELS_H_

inline constexpr char kLabelError[] = "\033[31mError\033[0m";
inline constexpr char kLabelWarning[] = "\033[31mWarning\033[0m";
inline constexpr char kLabelInfo[] = "\033[33mInfo\033[0m";

#endif  // ZOVDX_VIRTUAL_DMVIRTUAL_LABELS_H_

#pragma once

#include <QProperty>

// An observable field `m_<name>` of a QObject class (a Qt bindable property): assigning it
// emits `<name>Changed()` on a real change only, so the writers are one-line assignments.
// A type holding a comma needs an alias first.
#define VEMIRA_OBSERVABLE(Class, Type, name)                                                       \
    Q_OBJECT_BINDABLE_PROPERTY(Class, Type, m_##name, &Class::name##Changed)
#define VEMIRA_OBSERVABLE_INIT(Class, Type, name, init)                                            \
    Q_OBJECT_BINDABLE_PROPERTY_WITH_ARGS(Class, Type, m_##name, init, &Class::name##Changed)

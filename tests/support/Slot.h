// A signal's functor that calls a member of an object that is none of Qt's.
#pragma once

template <class Object, class... Arguments>
auto to(Object* object, void (Object::*slot)(Arguments...))
{
    return [object, slot](Arguments... arguments) { (object->*slot)(arguments...); };
}

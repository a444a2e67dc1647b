// Introspection: each object a user serves answers
// org.freedesktop.DBus.Introspectable with the table's interface as the
// table's rows and the user's registrations make it, at the time of the
// call:
//  - a method per row the user serves: "body" ay in, "status" u out;
//  - a signal per row the user subscribes to (annotated
//    org.corvane.Subscribed), and, for a user that registered a need for
//    updates of any row of the table (the table's serving side, which sends
//    its notifications), a signal per row, those it needs updates of
//    annotated org.corvane.NeedsUpdate; each signal carries "body" ay.
// Paths above the objects ("/", "/org", "/org/corvane") are answered by
// sd-bus, with the objects as child nodes.
//
// Why the XML is written here rather than by sd-bus from a vtable
// (sd_bus_add_object_vtable with one built at run time from the rows):
//  - sd-bus keeps a pointer to the vtable, its interface name and member
//    names for the life of the object; ours change while the object lives
//    (methods and subscriptions are registered one by one, again from a
//    handler too, and a table may be put back and taken again), so each
//    change would mean removing the object while sd-bus may be dispatching a
//    call through it and keeping the old array alive until it is done;
//  - the object callback sees a call before sd-bus does, so the table and
//    the registration are looked up at each call, as for the commands
//    themselves: what a caller is told and what it gets cannot differ;
//  - a vtable lists methods and signals only; "subscribed" and "needs
//    updates" would have nowhere to go.
// sd-bus still answers Peer, the methods of Properties for the standard
// interfaces, and the paths in between.

#include "internal.h"

#include <cstring>

namespace quibdbus {
namespace {

constexpr const char kIntrospectable[] = "org.freedesktop.DBus.Introspectable";
constexpr const char kProperties[] = "org.freedesktop.DBus.Properties";

// The standard interfaces of every object, as sd-bus writes them.
constexpr const char kHead[] =
    "<!DOCTYPE node PUBLIC \"-//freedesktop//DTD D-BUS Object Introspection 1.0//EN\"\n"
    "\"https://www.freedesktop.org/standards/dbus/1.0/introspect.dtd\">\n"
    "<node>\n"
    " <interface name=\"org.freedesktop.DBus.Peer\">\n"
    "  <method name=\"Ping\"/>\n"
    "  <method name=\"GetMachineId\">\n"
    "   <arg type=\"s\" name=\"machine_uuid\" direction=\"out\"/>\n"
    "  </method>\n"
    " </interface>\n"
    " <interface name=\"org.freedesktop.DBus.Introspectable\">\n"
    "  <method name=\"Introspect\">\n"
    "   <arg name=\"xml_data\" type=\"s\" direction=\"out\"/>\n"
    "  </method>\n"
    " </interface>\n"
    " <interface name=\"org.freedesktop.DBus.Properties\">\n"
    "  <method name=\"Get\">\n"
    "   <arg name=\"interface_name\" direction=\"in\" type=\"s\"/>\n"
    "   <arg name=\"property_name\" direction=\"in\" type=\"s\"/>\n"
    "   <arg name=\"value\" direction=\"out\" type=\"v\"/>\n"
    "  </method>\n"
    "  <method name=\"GetAll\">\n"
    "   <arg name=\"interface_name\" direction=\"in\" type=\"s\"/>\n"
    "   <arg name=\"props\" direction=\"out\" type=\"a{sv}\"/>\n"
    "  </method>\n"
    "  <method name=\"Set\">\n"
    "   <arg name=\"interface_name\" direction=\"in\" type=\"s\"/>\n"
    "   <arg name=\"property_name\" direction=\"in\" type=\"s\"/>\n"
    "   <arg name=\"value\" direction=\"in\" type=\"v\"/>\n"
    "  </method>\n"
    "  <signal name=\"PropertiesChanged\">\n"
    "   <arg type=\"s\" name=\"interface_name\"/>\n"
    "   <arg type=\"a{sv}\" name=\"changed_properties\"/>\n"
    "   <arg type=\"as\" name=\"invalidated_properties\"/>\n"
    "  </signal>\n"
    " </interface>\n";

// A member name the bus accepts, and so one that needs no escaping in XML.
bool isMember(const char *name)
{
    if (name == nullptr || *name == '\0' || std::strlen(name) > kMaxBusName ||
        (*name >= '0' && *name <= '9'))
        return false;
    for (const char *p = name; *p; ++p)
        if (!((*p >= 'a' && *p <= 'z') || (*p >= 'A' && *p <= 'Z') || (*p >= '0' && *p <= '9') ||
              *p == '_'))
            return false;
    return true;
}

std::string introspection(User *u, const Table &table)
{
    State &s = st();
    const uint16_t num = numOf(&table);
    bool sendsAll = false;
    for (const UpdateNeed &n : s.updates)
        sendsAll |= n.user == u && n.num == num;
    std::string xml = kHead;
    xml += " <interface name=\"" + table.intf + "\">\n";
    for (uint16_t i = 0; i < table.count; ++i) {
        const char *name = quib_tableRows(table.words)[i].name;
        if (isMember(name) && findReg(s.servers, u, num, i) != nullptr)
            xml += std::string("  <method name=\"") + name +
                   "\">\n"
                   "   <arg name=\"body\" type=\"ay\" direction=\"in\"/>\n"
                   "   <arg name=\"status\" type=\"u\" direction=\"out\"/>\n"
                   "  </method>\n";
    }
    for (uint16_t i = 0; i < table.count; ++i) {
        const char *name = quib_tableRows(table.words)[i].name;
        const bool subscribed = findReg(s.subscribers, u, num, i) != nullptr;
        const bool needs = quibDbus_needsUpdate(u, num, i) != 0;
        if (!isMember(name) || !(subscribed || sendsAll))
            continue;
        xml += std::string("  <signal name=\"") + name +
               "\">\n"
               "   <arg name=\"body\" type=\"ay\"/>\n";
        if (subscribed)
            xml += "   <annotation name=\"org.corvane.Subscribed\" value=\"true\"/>\n";
        if (needs)
            xml += "   <annotation name=\"org.corvane.NeedsUpdate\" value=\"true\"/>\n";
        xml += "  </signal>\n";
    }
    xml += " </interface>\n</node>\n";
    return xml;
}

}  // namespace

int answerIntrospection(sd_bus_message *m, const Served &served, sd_bus_error *error)
{
    const Table *table = tableNamed(served.table);
    if (table == nullptr)
        return 0;
    if (sd_bus_message_is_method_call(m, kIntrospectable, "Introspect"))
        return sd_bus_reply_method_return(m, "s", introspection(served.user, *table).c_str());
    if (!sd_bus_message_is_method_call(m, kProperties, nullptr))
        return 0;
    // Our interface has no properties; for the others sd-bus answers.
    const char *intf = nullptr;
    if (sd_bus_message_read(m, "s", &intf) < 0 || intf == nullptr || table->intf != intf) {
        sd_bus_message_rewind(m, 1);
        return 0;
    }
    if (sd_bus_message_is_method_call(m, kProperties, "GetAll"))
        return sd_bus_reply_method_return(m, "a{sv}", 0);
    return sd_bus_error_setf(error, SD_BUS_ERROR_UNKNOWN_PROPERTY, "%s has no properties", intf);
}

}  // namespace quibdbus

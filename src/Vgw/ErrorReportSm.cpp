// The catalogue of the agent's operator log messages.
#include "Vgw/ErrorReportSm.h"

namespace Vgw {

namespace {

// Every handle lets every message through.
constexpr double rateInterval = 0.0;
constexpr double rateBurst = 1.0;
constexpr std::uint8_t rateKeyArgs = 0;

constexpr const char* inspectLogs = "Inspect switch system logs for more information.";
constexpr const char* routedInterfaceError =
    "Indicates that the switch has been unable to create the routed interfaces requested by the NVC due to "
    "conflicting configurations or a lack of hardware resources.";

}  // namespace

Kiln::LogHandle KXT_VGW_INVALID_VLAN_MAP(
    "KXT_VGW_INVALID_VLAN_MAP", Kiln::LogSeverity::warning, "[ %s ]: Invalid Vlan map on %s VlanId: %s, Error: %s",
    "The controller specified a VLAN to logical switch mapping that cannot be implemented due to the current "
    "configuration of the switch.",
    inspectLogs, rateInterval, rateBurst, rateKeyArgs);

Kiln::LogHandle KXT_VGW_UNSPECIFIED_FAULT(
    "KXT_VGW_UNSPECIFIED_FAULT", Kiln::LogSeverity::warning, "[ %s ]: %s: %s",
    "Indicates that an error has occured in the switch but that no additional information is available.",
    inspectLogs, rateInterval, rateBurst, rateKeyArgs);

Kiln::LogHandle KXT_VGW_LR_CREATION_ERROR(
    "KXT_VGW_LR_CREATION_ERROR", Kiln::LogSeverity::warning, "[ %s ]: %s: %s",
    "Indicates that the switch has been unable to create the VRF requested by the NVC due to conflicting "
    "configurations or a lack of hardware resources.",
    "Verify that the VRF configuration requested by the NVC does not conflict with local switch configurations.",
    rateInterval, rateBurst, rateKeyArgs);

Kiln::LogHandle KXT_VGW_IP_PORT_ERROR(
    "KXT_VGW_IP_PORT_ERROR", Kiln::LogSeverity::warning, "[ %s ]: %s: %s: %s", routedInterfaceError,
    "Verify that the routed interface requested by the NVC does not conflict with the local switch configurations.",
    rateInterval, rateBurst, rateKeyArgs);

Kiln::LogHandle KXT_VGW_IP_UPLINK_ERROR(
    "KXT_VGW_IP_UPLINK_ERROR", Kiln::LogSeverity::warning, "[ %s ]: %s: %s: %s", routedInterfaceError,
    "Verify that the routed interface requested by the NVC does not conflict with local switch configurations.",
    rateInterval, rateBurst, rateKeyArgs);

Kiln::LogHandle KXT_VGW_VIRTUAL_ROUTER_MAC_ERROR(
    "KXT_VGW_VIRTUAL_ROUTER_MAC_ERROR", Kiln::LogSeverity::warning, "[ %s ]: %s: %s",
    "Indicates that the switch has been unable to configure the Virtual Router MAC requested by the NVC due to "
    "conflicting configurations or a lack of hardware resources.",
    "Verify that the virtual MAC requested by the NVC does not conflict with local switch configurations.",
    rateInterval, rateBurst, rateKeyArgs);

Kiln::LogHandle KXT_VGW_STATIC_ROUTES_ERROR(
    "KXT_VGW_STATIC_ROUTES_ERROR", Kiln::LogSeverity::warning, "[ %s ]: %s: %s: %s",
    "Indicates that the switch has been unable to create the static routes requested by the NVC due to "
    "conflicting configurations.",
    "Verify that the static routes requested by the NVC does not conflict with local switch configurations.",
    rateInterval, rateBurst, rateKeyArgs);

Kiln::LogHandle KXT_VGW_MAC_TABLE_EXHAUSTION_ERROR(
    "KXT_VGW_MAC_TABLE_EXHAUSTION_ERROR", Kiln::LogSeverity::warning, "[ %s ]: %s: %s: %s",
    "Indicates that the switch has been unable to process MAC entries requested by the NVC due to lack of table "
    "resources.",
    "", rateInterval, rateBurst, rateKeyArgs);

Kiln::LogHandle KXT_VGW_HOSTNAME_COLLISION(
    "KXT_VGW_HOSTNAME_COLLISION", Kiln::LogSeverity::error,
    "Multiple physical switches with hostname %s found; assigning %s until this is resolved",
    "Indicates that multiple physical switches are using the same hostname.",
    "Alter the configuration on affected devices to eliminate the conflict.", rateInterval, rateBurst, rateKeyArgs);

Kiln::LogHandle KXT_VGW_MANAGER_DISCONNECTED(
    "KXT_VGW_MANAGER_DISCONNECTED", Kiln::LogSeverity::warning,
    "Network virtualization controller %s is disconnected from OVSDB",
    "The network virtualization controller has disconnected from OVSDB",
    "Verify the connection between the OVSDB and network virtualization controller.", rateInterval, rateBurst,
    rateKeyArgs);

Kiln::LogHandle KXT_VGW_MANAGER_CONNECTED(
    "KXT_VGW_MANAGER_CONNECTED", Kiln::LogSeverity::informational,
    "Network virtualization controller %s is connected to OVSDB",
    "The network virtualization controller has connected to OVSDB", "", rateInterval, rateBurst, rateKeyArgs);

}  // namespace Vgw

#include "platform/secure_store.h"

namespace kestrova {

std::optional<std::string> secCopyErrorMessageString(OSStatus status) {
  // The keychain's own wording, so that logs read the same as on the phone.
  switch (status) {
    case errSecSuccess:
      return "No error.";
    case errSecIO:
      return "I/O error (bummers)";
    case errSecParam:
      return "One or more parameters passed to a function were not valid.";
    case errSecAllocate:
      return "Failed to allocate memory.";
    case errSecNotAvailable:
      return "No keychain is available. You may need to restart your computer.";
    case errSecAuthFailed:
      return "The user name or passphrase you entered is not correct.";
    case errSecDuplicateItem:
      return "The specified item already exists in the keychain.";
    case errSecItemNotFound:
      return "The specified item could not be found in the keychain.";
    case errSecInteractionNotAllowed:
      return "User interaction is not allowed.";
    case errSecDecode:
      return "Unable to decode the provided data.";
    default:
      return std::nullopt;
  }
}

}  // namespace kestrova

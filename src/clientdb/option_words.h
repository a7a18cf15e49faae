// SPDX-License-Identifier: Apache-2.0
// The option words of the quirk getters: each getter asks whether its word stands anywhere in
// the client type's entry. The words are the resource's vocabulary (resources/clients.db), so
// their spelling, case included, is fixed.
#pragma once

namespace tw::clientdb::words {

inline constexpr char kNeeds4thField[] = "XM:FORCE_4TH_FIELD";
inline constexpr char kNeedsDuration[] = "XM:FORCE_DURATION";
inline constexpr char kSupportsIcyData[] = "OS:supports_icy";
inline constexpr char kIsPsp[] = "NA:PSP";
inline constexpr char kExactProtocolinfo[] = "XM:EXACTPROTOCOLINFO";
inline constexpr char kAllowUnlimitedXml[] = "XM:UNLIMITED";
inline constexpr char kGiveNoTranscodedPictures[] = "XM:NOTRPICS";
inline constexpr char kIsSonybravia[] = "XM:BRAVIA_ROOT_DETECTION";
inline constexpr char kVieraDivxprofile[] = "XM:VIERA_DIVXPROFILE";
inline constexpr char kAddTimeToDate[] = "XM:DATETIME";
inline constexpr char kForceMp4Profile[] = "DL:MP4DLNA";
inline constexpr char kPhilipsSearch[] = "XM:PHILIPSSEARCH";
inline constexpr char kForceRes[] = "XM:FORCERES";
inline constexpr char kNoUtf[] = "XM:noutf8";
inline constexpr char kGiveRokuSearch[] = "SC:roku";
inline constexpr char kNeeds10Proxyresponse[] = "HP:1.0PROXYRESPONSE";
inline constexpr char kNeeds10Response[] = "HP:1.0RESPONSE";
inline constexpr char kNeedsPspStyleContentLength[] = "HP:LIVEPSPLENGTH";
inline constexpr char kNeedsContentLengthForLive[] = "HP:LIVEWITHLENGTH";
inline constexpr char kNeedsAbsoluteUris[] = "DX:ABSOLUTEURI";
inline constexpr char kIgnoreSort[] = "XM:IGNORESORT";
inline constexpr char kRedsonicCompliant[] = "DX:REDSONIC";
inline constexpr char kNoUtf8Sort[] = "XM:NOUTF8SORT";
inline constexpr char kSuppressEvents[] = "ET:NO";
inline constexpr char kCanNotRegisterDevice[] = "XM:CANNOTREGISTERDEVICE";
inline constexpr char kCanNotWorkWithEmbeddedAlbumart[] = "XM:NOEMBEDDEDALBUMART";
inline constexpr char kNeedsPhilipsSrtStyle[] = "XM:PHILIPSSRT";
inline constexpr char kWmcCompliant[] = "DX:WMC";
inline constexpr char kAllwaysCloseConnection[] = "HP:close";
inline constexpr char kSupportsChunked[] = "HP:chunked";
inline constexpr char kIsMusicclient[] = "AV:M";

}  // namespace tw::clientdb::words

#pragma once

namespace lumo {

// The JSON keys of the test-results records, shared by their readers and writers so that a
// key is spelt in one place. Note RemainderKey: the DefaultMatchSettings field it fills is
// named `reminder`.
// NOLINTBEGIN(readability-identifier-naming): the system spells these names.
inline constexpr char ApiUrlsKey[] = "apiUrls";
inline constexpr char AppNameKey[] = "appName";
inline constexpr char AppUrlsKey[] = "appUrls";
inline constexpr char BaselineImageKey[] = "baselineImage";
inline constexpr char BatchIdKey[] = "batchId";
inline constexpr char BatchKey[] = "batch";
inline constexpr char BatchNameKey[] = "batchName";
inline constexpr char BranchNameKey[] = "branchName";
inline constexpr char ContentKey[] = "content";
inline constexpr char ContentMatchesKey[] = "contentMatches";
inline constexpr char CurrentImageKey[] = "currentImage";
inline constexpr char DefaultMatchSettingsKey[] = "defaultMatchSettings";
inline constexpr char DiffImageKey[] = "diffImage";
inline constexpr char DurationKey[] = "duration";
inline constexpr char ExactMatchesKey[] = "exactMatches";
inline constexpr char FloatingKey[] = "floating";
inline constexpr char HasBaselineImageKey[] = "hasBaselineImage";
inline constexpr char HasCurrentImageKey[] = "hasCurrentImage";
inline constexpr char HeightKey[] = "height";
inline constexpr char HostAppKey[] = "hostApp";
inline constexpr char HostDisplaySizeKey[] = "hostDisplaySize";
inline constexpr char HostOSKey[] = "hostOS";
inline constexpr char IdKey[] = "id";
inline constexpr char IgnoreCaretKey[] = "ignoreCaret";
inline constexpr char IgnoreKey[] = "ignore";
inline constexpr char IsAbortedKey[] = "isAborted";
inline constexpr char IsDifferentKey[] = "isDifferent";
inline constexpr char IsNewKey[] = "isNew";
inline constexpr char LayoutKey[] = "layout";
inline constexpr char LayoutMatchesKey[] = "layoutMatches";
inline constexpr char LeftKey[] = "left";
inline constexpr char MatchLevelKey[] = "matchLevel";
inline constexpr char MatchesKey[] = "matches";
inline constexpr char MismatchesKey[] = "mismatches";
inline constexpr char MissingKey[] = "missing";
inline constexpr char NameKey[] = "name";
inline constexpr char NoneMatchesKey[] = "noneMatches";
inline constexpr char RemainderKey[] = "remainder";
inline constexpr char ScaleKey[] = "scale";
inline constexpr char SecretTokenKey[] = "secretToken";
inline constexpr char SessionKey[] = "session";
inline constexpr char SplitBottomHeightKey[] = "splitBottomHeight";
inline constexpr char SplitTopHeightKey[] = "splitTopHeight";
inline constexpr char StartedAtKey[] = "startedAt";
inline constexpr char StatusKey[] = "status";
inline constexpr char StepKey[] = "step";
inline constexpr char StepsInfoKey[] = "stepsInfo";
inline constexpr char StepsKey[] = "steps";
inline constexpr char StrictKey[] = "strict";
inline constexpr char StrictMatchesKey[] = "strictMatches";
inline constexpr char TopKey[] = "top";
inline constexpr char WidthKey[] = "width";
// NOLINTEND(readability-identifier-naming)

}  // namespace lumo

# The cases bench/opcount.sh and bench/ab.sh run when given none: scalar,
# text-heavy and nested records, and the two message trips (opcount only).
# Sourced; each entry is "Record/empty|full/op" or "trip/Message/send".
default_cases=(
  lineCallState/full/serialize lineCallState/full/unserialize lineCallState/full/copy
  lineStats/full/serialize lineStats/full/unserialize
  FaxT38/full/serialize FaxT38/full/unserialize
  CallingFeatures/full/serialize CallingFeatures/full/unserialize
  CallingFeatures/full/serialize_lg CallingFeatures/full/copy
  CallingFeatures/empty/serialize CallingFeatures/empty/unserialize
  ProfileSIP/full/serialize ProfileSIP/full/unserialize
  NumberingPlan/full/serialize NumberingPlan/full/unserialize
  VoiceProfile/full/serialize VoiceProfile/full/unserialize VoiceProfile/full/serialize_lg
  VoiceProfile/empty/serialize VoiceProfile/empty/unserialize
  trip/SetLineCallState/send trip/SetProfileConfig/send
)

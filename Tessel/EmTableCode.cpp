// SPDX-License-Identifier: Apache-2.0
#include "Tessel/EmTableCode.h"

#include "Tessel/EmTableBulkLook.h"
#include "Tessel/EmTableBulkWork.h"
#include "Tessel/EmTableWholeWork.h"

namespace Tessel {

struct EmShadowTable::CodeChoice {
   template<bool traced, class Keys, class Result>
   static Code const* code() {
      using Single = EntryWork<traced, Keys, EmShadowTable>;
      using SingleLook = EntryWork<traced, Keys, EmShadowTable const>;
      using Bulk = BulkWork<traced, Keys>;
      using Looks = BulkLook<traced, Keys>;
      using Whole = WholeWork<traced, Keys>;
      // What does not depend on the result is compiled once for all of them, and what depends on the
      // length of an image for those that are known.
      using OfLength = std::conditional_t<Keys::isExact, Result, AnyResult>;
      static constexpr Code chosen{ .entryIs = Single::template entryIs<Result>,
                                    .entryDel = Single::template entryDel<OfLength>,
                                    .entryHas = SingleLook::entryHas,
                                    .entry = SingleLook::template entry<Result>,
                                    .entryIsBulk = Bulk::template entryIs<Result>,
                                    .entryDelBulk = Bulk::template entryDel<OfLength>,
                                    .entryHasBulk = Looks::entryHas,
                                    .entryBulk = Looks::template entry<Result>,
                                    .readEntry = SingleLook::template readEntry<Result>,
                                    .reconcile = Whole::reconcile,
                                    .deleteAll = Whole::deleteAll,
                                    .clearTable = Whole::clearTable };
      return &chosen;
   }

   using Result8 = Vellum::detail::Reading<U64, 1>;
   using Result4 = Vellum::detail::Reading<U32, 1>;
   using Result2 = Vellum::detail::Reading<U16, 1>;
   using Result9To12 = Vellum::detail::Reading<U64, 2>;

   template<class Keys>
   static Code const* untraced( U32 resultLength ) {
      switch ( resultLength ) {
      case 2:
         return code<false, Keys, Result2>();
      case 4:
         return code<false, Keys, Result4>();
      case 8:
         return code<false, Keys, Result8>();
      default:
         return resultLength > 8 ? code<false, Keys, Result9To12>()
                                 : code<false, Keys, AnyResult>();
      }
   }

   /// For a key length that is worth code of its own, with the results that most tables have.
   template<class Keys>
   static Code const* untracedExact( U32 resultLength ) {
      return resultLength == 4   ? code<false, Keys, Result4>()
             : resultLength == 8 ? code<false, Keys, Result8>()
                                 : nullptr;
   }

   // MAC addresses, and addresses or their hashes in one and two words: a length that is known saves
   // the shifts, a tenth of a look-up.
   static Code const* untracedExact( U32 keyLength, U32 resultLength ) {
      switch ( keyLength ) {
      case 6:
         return untracedExact<KeyClass<1, 6>>( resultLength );
      case 8:
         return untracedExact<KeyClass<1, 8>>( resultLength );
      case 16:
         return untracedExact<KeyClass<2, 16>>( resultLength );
      default:
         return nullptr;
      }
   }
};

EmShadowTable::Code const* EmShadowTable::Code::untraced( U32 keyLength, U32 resultLength ) {
   if ( auto const* const exact = CodeChoice::untracedExact( keyLength, resultLength ) ) {
      return exact;
   }
   switch ( KeyToSlotMap::wordsFor( keyLength ) ) {
   case 1:
      return CodeChoice::untraced<KeyClass<1>>( resultLength );
   case 2:
      return CodeChoice::untraced<KeyClass<2>>( resultLength );
   default:
      return CodeChoice::untraced<KeyClass<3>>( resultLength );
   }
}

EmShadowTable::Code const* EmShadowTable::Code::traced( U32 keyLength ) {
   switch ( KeyToSlotMap::wordsFor( keyLength ) ) {
   case 1:
      return CodeChoice::code<true, KeyClass<1>, AnyResult>();
   case 2:
      return CodeChoice::code<true, KeyClass<2>, AnyResult>();
   default:
      return CodeChoice::code<true, KeyClass<3>, AnyResult>();
   }
}

} // namespace Tessel

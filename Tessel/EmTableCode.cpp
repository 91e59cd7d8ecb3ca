// SPDX-License-Identifier: Apache-2.0
#include "Tessel/EmTableCode.h"

#include "Tessel/EmTableWholeWork.h"

namespace Tessel {

/// The functions of EntryWork, for calls through a pointer.
struct EmShadowTable::CodeChoice {
   template<bool traced, class Keys, class Result>
   struct Functions {
      using Work = EntryWork<traced, Keys, EmShadowTable>;
      using Look = EntryWork<traced, Keys, EmShadowTable const>;
      using Whole = WholeWork<traced, Keys>;

      static bool entryIs( EmShadowTable& table,
                           Brine::ChipId chipId,
                           Weft::CharPtrConst key,
                           Weft::CharPtrConst result ) {
         Work const work( table );
         return work.template set<Result>( chipId, key, work.hashOf( chipId, key ), result );
      }
      static void entryDel( EmShadowTable& table, Brine::ChipId chipId, Weft::CharPtrConst key ) {
         Work const work( table );
         work.template del<Result>( chipId, key, work.hashOf( chipId, key ) );
      }
      static bool
      entryHas( EmShadowTable const& table, Brine::ChipId chipId, Weft::CharPtrConst key ) {
         Look const look( table );
         return look.has( chipId, key, look.hashOf( chipId, key ) );
      }
      static bool entry( EmShadowTable const& table,
                         Brine::ChipId chipId,
                         Weft::CharPtrConst key,
                         Weft::CharPtr result ) {
         Look const look( table );
         return look.template get<Result>( chipId, key, look.hashOf( chipId, key ), result );
      }
      static U64
      entryIsBulk( EmShadowTable& table, std::span<EmPairAndResult const> pairs, bool* answers ) {
         Work const work( table );
         auto const one = [ & ]( EmPairAndResult const& pair, U64 hash )
            __attribute__( ( always_inline ) ) {
            return work.template set<Result>( pair.chipId, pair.key, hash, pair.result );
         };
         return work.template inBulk<true>( pairs, answers, one );
      }
      static U64
      entryDelBulk( EmShadowTable& table, std::span<EmPair const> pairs, bool* answers ) {
         Work const work( table );
         auto const one = [ & ]( EmPair const& pair, U64 hash ) __attribute__( ( always_inline ) ) {
            return work.template del<Result>( pair.chipId, pair.key, hash );
         };
         return work.template inBulk<true>( pairs, answers, one );
      }
      static U64
      entryHasBulk( EmShadowTable const& table, std::span<EmPair const> pairs, bool* answers ) {
         Look const look( table );
         auto const one = [ & ]( EmPair const& pair, U64 hash ) __attribute__( ( always_inline ) ) {
            return look.has( pair.chipId, pair.key, hash );
         };
         return look.template inBulk<false>( pairs, answers, one );
      }
      static U64 entryBulk( EmShadowTable const& table,
                            std::span<EmPairAndBuffer const> pairs,
                            bool* answers ) {
         Look const look( table );
         auto const one = [ & ]( EmPairAndBuffer const& pair, U64 hash )
            __attribute__( ( always_inline ) ) {
            return look.template get<Result>( pair.chipId, pair.key, hash, pair.result );
         };
         return look.template inBulk<true>( pairs, answers, one );
      }
      static EmTableEntry readFromVellumMemory( EmShadowTable const& table, EmTableIndex index ) {
         return Look( table ).template entryAt<Result>( index );
      }
      static void reconcile( EmShadowTable& table ) { Whole( table ).reconcile(); }
      static void deleteAll( EmShadowTable& table, Brine::ChipId chipId ) {
         Whole( table ).deleteAll( chipId );
      }
      static void clearTable( EmShadowTable& table ) { Whole( table ).clear(); }
   };

   template<bool traced, class Keys, class Result>
   static Code const* code() {
      using F = Functions<traced, Keys, Result>;
      // What does not depend on the result is compiled once for all of them, and what depends on the
      // length of an image for those that are known.
      using Any = Functions<traced, Keys, AnyResult>;
      using OfLength = std::conditional_t<Keys::isExact, F, Any>;
      static constexpr Code chosen{ .entryIs = F::entryIs,
                                    .entryDel = OfLength::entryDel,
                                    .entryHas = Any::entryHas,
                                    .entry = F::entry,
                                    .entryIsBulk = F::entryIsBulk,
                                    .entryDelBulk = OfLength::entryDelBulk,
                                    .entryHasBulk = Any::entryHasBulk,
                                    .entryBulk = F::entryBulk,
                                    .readFromVellumMemory = Any::readFromVellumMemory,
                                    .reconcile = Any::reconcile,
                                    .deleteAll = Any::deleteAll,
                                    .clearTable = Any::clearTable };
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
